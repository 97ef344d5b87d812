#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "engine/QNDownloadRecord.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "playlist/QNMovie.h"
#include "playlist/QNTrack.h"
#include "tests/support/EngineWorld.h"
#include "tests/support/ScriptedFileManager.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/UserNamespace.h"

namespace {

using qntest::numbered;
using qntest::QualityPlan;
using qntest::readFile;
using qntest::render;

// A set and what lies in its directory.
class SetStorage : public testing::Test {
 protected:
  void make(const std::vector<QualityPlan>& qualities) {
    set = QNMovieDownloadSet::downloadSetWithPlaylist(qntest::makePlaylist(qualities),
                                                      directory.path(), "manifest.mpd",
                                                      "http://h/m.mpd", "id", controller);
  }

  std::shared_ptr<QNQuality> quality(size_t track) {
    return set->movie()->tracks()[track]->qualities()[0];
  }

  std::shared_ptr<QNQualityDownloadInfo> info(size_t track) {
    return set->qualityInfoForQuality(quality(track));
  }

  std::string stored() {
    std::vector<std::string> names;
    for (const auto& file : platform::FileManager::defaultManager().filesBelow(directory.path()))
      names.push_back(file.path);
    std::sort(names.begin(), names.end());
    std::string text;
    for (const auto& name : names)
      if (name != QNMoviePropertiesFileName && name != QNDownloadRecordFileName) text += name + " ";
    return text;
  }

  std::string reasonOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const platform::Exception& exception) {
      return exception.reason();
    }
    return "none";
  }

  qntest::TempDirectory directory;
  std::shared_ptr<qntest::PlainController> controller = std::make_shared<qntest::PlainController>();
  std::shared_ptr<QNMovieDownloadSet> set;
};

TEST_F(SetStorage, PicksUpWholeQualitiesAndContinuesPartialOnes) {
  for (const char* name : {"a/1", "a/2", "v/2", "x/1"})
    directory.write(name, "12345");
  directory.write("v/1", "");              // nothing was stored there
  directory.write("t/1/inside", "12345");  // a directory is no file
  directory.write(".qn-7-1-1.tmp", "12345");
  make({{QNMediaTypeVideo, "v", numbered("v/", 4)},
        {QNMediaTypeAudio, "a", numbered("a/", 2)},
        {QNMediaTypeText, "t", {"t/1"}},
        {QNMediaTypeText, "empty", {}},
        {QNMediaTypeUnknown, "other", numbered("x/", 2)},
        {QNMediaTypeVideo, "none", numbered("w/", 2)}});
  EXPECT_EQ(render(*set), "idle selected v:.C.. downloaded a completed 0 failed 0");
  EXPECT_EQ(render(*info(0)->resources()[1]), "idle 5/5 completed");
  EXPECT_EQ(set->resourceBytes(), 15);
  EXPECT_EQ(set->downloadedSize(), 10);
  // The record is brought in line with what is there.
  EXPECT_EQ(set->properties()->downloadedQualityIdentifiers(), std::vector<std::string>{"a"});
  EXPECT_EQ(set->properties()->numberOfDownloadedAudioQualities(), 1U);
  EXPECT_TRUE(controller->tasks.empty());
  EXPECT_TRUE(set->downloadWithAdditionalHeaders(nullptr));
  EXPECT_EQ(qntest::letters(*info(0)), "RCRR");
}

TEST_F(SetStorage, LooksAtNoFileThatIsNotThere) {
  for (int i = 1; i <= 50; ++i)
    directory.write("v/" + std::to_string(i * 2), "x");
  qntest::ScriptedFileManager files;
  make({{QNMediaTypeVideo, "v", numbered("v/", 20000)}});
  EXPECT_LT(files.calls(), 50U);
  EXPECT_EQ(info(0)->numCompleted(), 50U);
}

TEST_F(SetStorage, StartsWithTwoMembersOnly) {
  make({{QNMediaTypeVideo, "v", {"v/1"}}});
  EXPECT_EQ(
      readFile(set->properties()->jsonPath()),
      R"({"QNDownloadSetSourceURL":"http://h/m.mpd","QNDownloadSetManifestName":"manifest.mpd"})");
  EXPECT_EQ(std::filesystem::status(set->properties()->jsonPath()).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(SetStorage, SetsADamagedPropertiesFileAside) {
  const char* const damaged[] = {"", "{", "[]", R"({"QNDownloadSetSourceURL":"u"})", "\xff\xfe"};
  for (const char* text : damaged) {
    set.reset();
    directory.write(QNMoviePropertiesFileName, text);
    make({{QNMediaTypeVideo, "v", {"v/1"}}});
    EXPECT_EQ(set->properties()->sourceURL(), "http://h/m.mpd") << text;
    EXPECT_EQ(readFile(directory.path(QNMoviePropertiesFileName) + ".damaged"), text);
  }
}

TEST_F(SetStorage, RemovesFilesAndForgetsThem) {
  for (const auto& name : {"a/1", "a/2", "v/1"})
    directory.write(name, "12345");
  const std::vector<QualityPlan> plans = {{QNMediaTypeVideo, "v", numbered("v/", 2)},
                                          {QNMediaTypeAudio, "a", numbered("a/", 2)}};
  make(plans);
  set->removeDownloadedQuality(quality(1));
  EXPECT_EQ(stored(), "v/1 ");
  EXPECT_EQ(render(*set), "idle selected v:C. downloaded completed 0 failed 0");
  EXPECT_EQ(set->properties()->numberOfDownloadedQualities(), 0U);
  EXPECT_EQ(set->properties()->downloadedQualityIdentifiers(), std::vector<std::string>{});
  set->removeAllDownloadedQualities();
  EXPECT_EQ(stored(), "");
  EXPECT_EQ(render(*set), "idle selected v:.. downloaded completed 0 failed 0");
  EXPECT_EQ(set->resourceBytes(), 0);
}

TEST_F(SetStorage, TellsWhenFilesResistRemoval) {
  for (const auto& name : {"a/1", "a/2"})
    directory.write(name, "12345");
  make({{QNMediaTypeAudio, "a", numbered("a/", 2)}});
  qntest::ScriptedFileManager files;
  files.setFault([](const auto& method, const auto& path) {
    return method == "removeItem" && path.ends_with("a/1") ? EACCES : 0;
  });
  EXPECT_EQ(reasonOf([&] { set->removeDownloadedQuality(quality(0)); }),
            "Failed to remove all resource files for quality");
  EXPECT_EQ(reasonOf([&] { set->removeAllDownloadedQualities(); }),
            "Failed to remove all resource files for all qualities");
  EXPECT_EQ(stored(), "a/1 ") << "what can be removed is";
  EXPECT_EQ(render(*set), "idle selected downloaded completed 0 failed 0");
}

TEST_F(SetStorage, KeepsFilesThatAnotherQualityStillLists) {
  const std::vector<QualityPlan> plans = {
      {QNMediaTypeVideo, "v", {"init", "v/1"}},
      {QNMediaTypeVideo, "w", {"./init", "w/1"}},
      {QNMediaTypeAudio, "a", {"init", "a/1"}},
  };
  for (const auto& name : {"init", "v/1", "w/1", "a/1"})
    directory.write(name, "12345");
  make(plans);
  ASSERT_EQ(set->numberOfDownloadedQualities(), 3U);
  set->removeDownloadedQuality(quality(0));
  EXPECT_EQ(stored(), "a/1 init w/1 ");
  set->removeDownloadedQuality(quality(1));
  EXPECT_EQ(stored(), "a/1 init ");
  set->selectQuality(quality(0));
  set->removeDownloadedQuality(quality(2));
  EXPECT_EQ(stored(), "init ") << "the selected one lists it too";
  set->removeAllDownloadedQualities();
  EXPECT_EQ(stored(), "");
}

TEST_F(SetStorage, AFileThatTwoRangesCompeteForIsOfTheOneThatIsRecorded) {
  const std::vector<QualityPlan> plans = {{QNMediaTypeVideo, "v", {"all.mp4@0+100", "v/1"}},
                                          {QNMediaTypeAudio, "a", {"all.mp4@200+300", "a/1"}},
                                          {QNMediaTypeText, "t", {"/all.mp4"}},
                                          {QNMediaTypeVideo, "same", {"all.mp4@0+100"}}};
  for (const auto& name : {"all.mp4", "v/1", "a/1"})
    directory.write(name, "12345");
  make(plans);
  EXPECT_EQ(render(*set), "idle selected v:.C a:.C downloaded completed 0 failed 0")
      << "whose bytes these are is not known";

  set->properties()->setObjectForKey(
      platform::JSON::fromObject({{"all.mp4", "bytes=200-300 http://h/all.mp4"}}),
      "QNStoredRanges");
  make(plans);
  EXPECT_EQ(render(*set), "idle selected v:.C downloaded a completed 0 failed 0");
  const auto error = set->errorForPlace(*info(0)->resources()[0]);
  EXPECT_EQ(render(error), "NSPOSIXErrorDomain " + std::to_string(EEXIST));
  EXPECT_NE(error->localizedDescription().find("bytes=200-300"), std::string::npos);
  EXPECT_EQ(set->errorForPlace(*info(0)->resources()[1]), nullptr);
  // One that cannot be stored is started all the same, and requested from nowhere.
  ASSERT_TRUE(set->downloadWithAdditionalHeaders(nullptr));
  EXPECT_EQ(info(0)->resources()[0]->downloadTask()->originalRequest()->url(), nullptr);
  set->cancel();
  // With the other gone, its place is free.
  set->removeDownloadedQuality(quality(1));
  EXPECT_EQ(set->errorForPlace(*info(0)->resources()[0]), nullptr);
  EXPECT_EQ(stored(), "v/1 ");

  // Two of those that compete may be the same, and keep the file for each other.
  directory.write("all.mp4", "12345");
  set->properties()->setObjectForKey(
      platform::JSON::fromObject({{"all.mp4", "bytes=200-300 http://h/all.mp4"}}),
      "QNStoredRanges");
  make({{QNMediaTypeVideo, "v", {"all.mp4@0+100"}},
        {QNMediaTypeAudio, "a", {"all.mp4@200+300"}},
        {QNMediaTypeAudio, "b", {"all.mp4@200+300"}}});
  EXPECT_EQ(render(*set), "idle selected downloaded a b completed 0 failed 0");
  set->removeDownloadedQuality(quality(1));
  EXPECT_EQ(stored(), "all.mp4 v/1 ");
  set->removeDownloadedQuality(quality(2));
  EXPECT_EQ(stored(), "v/1 ");
}

TEST_F(SetStorage, PropertiesOfOneDirectoryAreOneObject) {
  directory.write("a/1", "x");
  make({{QNMediaTypeAudio, "a", {"a/1"}}});
  const auto listed = QNMovieDownloadProperties::propertiesWithLocalPath(directory.path(),
                                                                         QNMoviePropertiesFileName);
  EXPECT_EQ(listed, set->properties());
  // Whatever the directory is called.
  std::filesystem::create_directory_symlink(directory.path(), directory.path("link"));
  for (const std::string& spelling : {directory.path() + "//", directory.path("a/.."),
                                      directory.path("./"), directory.path("link")}) {
    EXPECT_EQ(
        QNMovieDownloadProperties::propertiesWithLocalPath(spelling, QNMoviePropertiesFileName),
        listed)
        << spelling;
  }
  qntest::TempDirectory mounted;
  const auto passed = qntest::runInUserNamespace([&] {
    ASSERT_EQ(mount(directory.path().c_str(), mounted.path().c_str(), nullptr, MS_BIND, nullptr),
              0);
    EXPECT_EQ(QNMovieDownloadProperties::propertiesWithLocalPath(mounted.path(),
                                                                 QNMoviePropertiesFileName),
              listed);
  });
  EXPECT_NE(passed, false);
}

}  // namespace
