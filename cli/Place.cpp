#include "cli/Place.h"

#include <climits>
#include <cstdlib>

#include "cli/Background.h"
#include "cli/Failure.h"
#include "cli/Record.h"
#include "engine/QNMovieDownloadProperties.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/transfer/TransferOptions.h"

namespace cli {
namespace {

using platform::FileManager;

std::string canonical(const std::string& path) {
  char resolved[PATH_MAX];
  if (::realpath(path.c_str(), resolved)) return resolved;
  return path;
}

platform::URLSessionConfiguration configurationFor(const Place& place) {
  auto configuration =
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
          place.sessionIdentifier);
  configuration.partialDirectory = place.root;
  return configuration;
}

Place placeOf(const std::string& canonicalRoot, const std::string& downloadId) {
  Place place;
  place.root = canonicalRoot;
  place.downloadId = downloadId;
  place.directory = FileManager::pathByAppending(canonicalRoot, downloadId);
  place.sessionIdentifier = "qnmovie/" + platform::transferHash(canonicalRoot) + "/" + downloadId;
  place.storeDirectory =
      platform::TransferLocation::fromConfiguration(configurationFor(place)).storeDirectory;
  place.recordPath = place.storeDirectory + kRecordExtension;
  return place;
}

}  // namespace

bool isDownloadId(const std::string& text) {
  const bool hasForm = text.size() == 33 || text.size() == 50;
  if (!hasForm) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool isDigit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (i == 16 || i == 33 ? c != '-' : !isDigit) return false;
  }
  return true;
}

Place Place::forURL(const std::string& root, const std::string& url) {
  const auto error = FileManager::defaultManager().createDirectoryWithIntermediates(root);
  if (error) throw Failure(ExitCannotWrite, error->localizedDescription());
  const std::string canonicalRoot = canonical(root);
  return placeOf(canonicalRoot, QNMovieDownloader::downloadIdWithURL(url, canonicalRoot));
}

Place Place::forDownloadId(const std::string& root, const std::string& downloadId) {
  return placeOf(canonical(root), downloadId);
}

bool Place::exists() const {
  return FileManager::defaultManager().isDirectory(directory);
}

bool Place::hasProperties() const {
  return FileManager::defaultManager().isRegularFile(
      FileManager::pathByAppending(directory, QNMoviePropertiesFileName));
}

bool Place::hasManifest(const QNMovieDownloader& downloader) const {
  const std::string name = downloader.findManifestLocalNameForDownloadId(downloadId);
  return FileManager::defaultManager().isRegularFile(FileManager::pathByAppending(directory, name));
}

std::string Place::storedURL() const {
  if (!hasProperties()) return {};
  const auto properties =
      QNMovieDownloadProperties::propertiesWithLocalPath(directory, QNMoviePropertiesFileName);
  return properties ? properties->sourceURL().value_or("") : "";
}

Place Place::forTarget(const std::string& root, const std::string& text) {
  if (isDownloadId(text)) return forDownloadId(root, text);
  const std::string canonicalRoot = canonical(root);
  return placeOf(canonicalRoot, QNMovieDownloader::downloadIdWithURL(text, canonicalRoot));
}

std::optional<Place> Place::forSession(const std::string& sessionIdentifier) {
  Place place;
  place.sessionIdentifier = sessionIdentifier;
  const std::string path =
      platform::TransferLocation::fromConfiguration(configurationFor(place)).storeDirectory +
      kRecordExtension;
  const auto record = Record::read(path);
  if (!record) return std::nullopt;
  const size_t slash = sessionIdentifier.rfind('/');
  place = placeOf(record->root, slash == std::string::npos ? sessionIdentifier
                                                           : sessionIdentifier.substr(slash + 1));
  if (place.sessionIdentifier != sessionIdentifier) return std::nullopt;
  return place;
}

bool Place::usesService() const {
  const auto record = Record::read(recordPath);
  return record && record->service;
}

std::string Place::partialDirectory() const {
  return platform::TransferLocation::fromConfiguration(configurationFor(*this)).partialDirectory;
}

std::shared_ptr<QNMovieDownloader> Place::openDownloader(bool useService) const {
  const bool inService = useService || usesService();
  const auto configure = [&](platform::URLSessionConfiguration& configuration) {
    configuration.partialDirectory = configurationFor(*this).partialDirectory;
    configuration.useService = inService;
    if (inService) configuration.launchCommand = launchCommand();
  };
  try {
    return QNMovieDownloader::initWithIdentifier(sessionIdentifier, true, false, root, configure);
  } catch (const platform::Exception& exception) {
    if (auto held = failureOfHeld(exception)) throw std::move(*held);
    throw Failure(ExitCannotWrite, exception.reason());
  }
}

std::optional<Failure> failureOfHeld(const platform::Exception& exception) {
  for (const char* key : {platform::QNURLSessionHolderKey, QNDownloadHolderKey}) {
    const auto holder = exception.userInfo().find(key);
    if (holder == exception.userInfo().end()) continue;
    const auto* who = std::any_cast<std::string>(&holder->second);
    return Failure(ExitHeld, "This download is in the hands of " +
                                 (who ? *who : "another process") + " already");
  }
  return std::nullopt;
}

}  // namespace cli
