#include "engine/QuillonStreamDownloader.h"

#include "engine/QNEngineLog.h"
#include "engine/QNMovieDownloader.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/URL.h"
#include "platform/host/QNLog.h"

namespace {

// No exception may cross into a host that was built by whatever compiler, none of logging either.
template <class Body>
void guarded(const char* message, Body body) noexcept {
  try {
    try {
      body();
    } catch (...) {
      QNEngineLog(QNLogLevelError, message, platform::describeCurrentException());
    }
  } catch (...) {
    // Nobody is left to tell.
  }
}

// Somebody in this process may know the directory by another path than the host does.
bool isManifestOf(const QNMovieDownloadProperties& properties, const std::string& localURL) {
  const std::string own = properties.localURL();
  if (own == localURL) return true;
  const auto fileOf = [](const std::string& url) {
    const auto parsed = platform::URL::URLWithString(url);
    const auto path = parsed ? parsed->filePath() : std::nullopt;
    return path ? platform::FileManager::defaultManager().identityOf(*path) : std::nullopt;
  };
  const auto file = fileOf(localURL);
  return file && file == fileOf(own);
}

}  // namespace

void QuillonStreamDownloader::initPlugin() {
  addFactoryFunction(&QuillonStreamDownloader::create);
}

std::shared_ptr<QuillonStreamDownloaderInterface> QuillonStreamDownloader::create() {
  std::shared_ptr<QuillonStreamDownloaderInterface> plugin;
  guarded("Error: Failed to make the plug-in: %@",
          [&] { plugin = std::make_shared<QuillonStreamDownloader>(); });
  return plugin;
}

std::string QuillonStreamDownloader::getId() const {
  return "QuillonStreamDownloader";
}

std::optional<std::vector<std::string>> QuillonStreamDownloader::getDownloadedQualityIds(
    const std::string& localURL) {
  std::optional<std::vector<std::string>> identifiers;
  guarded("Error: Failed to tell the downloaded qualities: %@", [&] {
    for (const auto& properties : QNMovieDownloader::sharedDownloadedMovies()) {
      if (!isManifestOf(*properties, localURL)) continue;
      identifiers = properties->downloadedQualityIdentifiers();
      break;
    }
  });
  return identifiers;
}

void QuillonStreamDownloader_initPlugin() {
  guarded("Error: Failed to register the plug-in: %@",
          [] { QuillonStreamDownloader::initPlugin(); });
}
