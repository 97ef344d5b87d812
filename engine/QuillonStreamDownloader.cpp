#include "engine/QuillonStreamDownloader.h"

#include "engine/QNEngineLog.h"
#include "engine/QNMovieDownloader.h"
#include "platform/Log.h"
#include "platform/host/QNLog.h"

void QuillonStreamDownloader::initPlugin() {
  addFactoryFunction(&QuillonStreamDownloader::create);
}

std::shared_ptr<QuillonStreamDownloaderInterface> QuillonStreamDownloader::create() {
  return std::make_shared<QuillonStreamDownloader>();
}

std::string QuillonStreamDownloader::getId() const {
  return "QuillonStreamDownloader";
}

std::optional<std::vector<std::string>> QuillonStreamDownloader::getDownloadedQualityIds(
    const std::string& localURL) {
  for (const auto& properties : QNMovieDownloader::sharedDownloader()->downloadedMovies()) {
    if (properties->localURL() == localURL) return properties->downloadedQualityIdentifiers();
  }
  return std::nullopt;
}

void QuillonStreamDownloader_initPlugin() {
  // No exception may cross into a host that was built by whatever compiler.
  try {
    QuillonStreamDownloader::initPlugin();
  } catch (...) {
    QNEngineLog(QNLogLevelError, "Error: Failed to register the plug-in: %@",
                platform::describeCurrentException());
  }
}
