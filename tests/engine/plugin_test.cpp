#include <gtest/gtest.h>

#include "engine/QNMovieDownloader.h"
#include "engine/QuillonStreamDownloader.h"
#include "tests/support/ScriptedFileManager.h"
#include "tests/support/ScriptedSession.h"
#include "tests/support/TempDirectory.h"

namespace {

TEST(Plugin, AnswersForTheSharedDownloadersStore) {
  qntest::TempDirectory documents;
  qntest::ScopedEnvironment environment("XDG_DOCUMENTS_DIR", documents.path());
  qntest::ScriptedSessions sessions;
  QuillonStreamDownloader_initPlugin();
  QuillonStreamDownloader_initPlugin();
  const auto plugin = QuillonStreamDownloaderInterface::pluginWithId("QuillonStreamDownloader");
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(QuillonStreamDownloaderInterface::factoryFunctions().size(), 1U);

  const auto write = [&](const std::string& id, const std::string& identifiers) {
    documents.write("QNMovieDownloader/" + id + "/" + QNMoviePropertiesFileName,
                    R"({"QNDownloadSetSourceURL":"u","QNDownloadSetManifestName":"manifest.mpd")" +
                        identifiers + "}");
  };
  write("one", R"(,"QNDownloadedQualityIdentifiers":["v","a"])");
  write("two", "");
  const std::string root = "file://" + documents.path("QNMovieDownloader");
  const std::string one = root + "/one/manifest.mpd";
  const std::vector<std::string> stored = {"v", "a"};
  // Another process has the session: what is stored is known without it.
  sessions.store("QNMovieDownloader/SharedSession")->refuse("held");
  EXPECT_EQ(plugin->getDownloadedQualityIds(one), stored);
  EXPECT_ANY_THROW(QNMovieDownloader::sharedDownloader());
  sessions.store("QNMovieDownloader/SharedSession")->refuse(std::nullopt);
  EXPECT_EQ(plugin->getDownloadedQualityIds(one), stored);
  EXPECT_EQ(sessions.session(), nullptr) << "no answer makes a downloader";
  {
    qntest::ScriptedFileManager files;
    files.setFault([](const auto&, const auto&) -> int { throw std::bad_alloc(); });
    EXPECT_EQ(plugin->getDownloadedQualityIds(one), std::nullopt) << "no exception reaches a host";
  }

  const auto shared = QNMovieDownloader::sharedDownloader();
  EXPECT_EQ(shared, QNMovieDownloader::sharedDownloader());
  EXPECT_EQ(shared->downloadPath(), documents.path("QNMovieDownloader"));
  EXPECT_EQ(sessions.session()->configuration().identifier, "QNMovieDownloader/SharedSession");
  EXPECT_FALSE(shared->allowsCellularAccess() || shared->discretionary());

  EXPECT_EQ(plugin->getDownloadedQualityIds(one), stored);
  EXPECT_EQ(plugin->getDownloadedQualityIds(root + "/two/manifest.mpd"), std::nullopt);
  EXPECT_EQ(plugin->getDownloadedQualityIds(root + "/three/manifest.mpd"), std::nullopt);
  shared->setDownloadPath(documents.path());
  EXPECT_EQ(plugin->getDownloadedQualityIds(one), std::nullopt) << "it looks where that one does";
}

}  // namespace
