#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "engine/QNEngineLog.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "engine/QNStoredPlaces.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/host/QNLog.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNQuality.h"
#include "playlist/QNTrack.h"

using platform::FileManager;
using platform::RecursiveLock;

// A set and its directory: construction, what is picked up, properties, removal.

namespace {

constexpr const char* kDamagedSuffix = ".damaged";

[[noreturn]] void misuse(const char* reason) {
  throw platform::Exception(QNMovieDownloadSetException, reason);
}

// "scheme://host/a/b/manifest.mpd?q#f" gives "scheme://host/a/b/".
std::string directoryOfURL(const std::string& url) {
  std::string base = url.substr(0, url.find_first_of("?#"));
  const size_t authority = base.find("://");
  const size_t path =
      authority == std::string::npos ? base.find('/') : base.find('/', authority + 3);
  if (path != std::string::npos) return base.substr(0, base.rfind('/') + 1);
  return authority == std::string::npos ? "/" : base + "/";
}

// Sizes of the files below a directory that may be resources, by their paths.
class StoredFiles {
 public:
  explicit StoredFiles(const std::string& directory) {
    for (auto& file : FileManager::defaultManager().filesBelow(directory)) {
      total_ += file.size;
      const std::string_view path = file.path;
      const std::string_view name = path.substr(path.rfind('/') + 1);
      if (file.size > 0 && !FileManager::isTemporaryName(name))
        sizes_.emplace(std::move(file.path), file.size);
    }
  }

  int64_t total() const { return total_; }
  int64_t sizeOf(const std::string& path) const {
    const auto entry = sizes_.find(path);
    return entry == sizes_.end() ? 0 : entry->second;
  }

 private:
  std::unordered_map<std::string, int64_t> sizes_;
  int64_t total_ = 0;
};

bool isSelectable(const QNQuality& quality) {
  return quality.type() != QNMediaTypeUnknown;
}

}  // namespace

std::shared_ptr<QNMovieDownloadSet> QNMovieDownloadSet::downloadSetWithPlaylist(
    std::shared_ptr<QNPlaylist> playlist, const std::string& downloadPath,
    const std::string& manifestName, const std::string& sourceURL, const std::string& downloadId,
    const std::shared_ptr<QNSessionController>& controller, const Construction& construction) {
  if (!playlist || playlist->movies().empty() || !playlist->movies().front())
    misuse("Playlist has no movie");
  auto mutex =
      construction.mutex ? construction.mutex : std::make_shared<platform::RecursiveMutex>();
  std::shared_ptr<QNMovieDownloadSet> set(new QNMovieDownloadSet(
      std::move(playlist), downloadPath, sourceURL, downloadId, std::move(mutex)));
  RecursiveLock lock(set->mutex_);
  set->listQualities(controller);
  set->places_ = std::make_unique<QNStoredPlaces>(downloadPath, manifestName, set->qualities_);
  if (construction.beforeStoring) construction.beforeStoring();
  set->openProperties(manifestName);
  set->pickUpStoredFiles();
  set->writeChangedProperties();
  set->_checkInvariants();
  return set;
}

QNMovieDownloadSet::QNMovieDownloadSet(std::shared_ptr<QNPlaylist> playlist,
                                       const std::string& downloadPath,
                                       const std::string& sourceURL, const std::string& downloadId,
                                       std::shared_ptr<platform::RecursiveMutex> mutex)
    : mutexOwner_(std::move(mutex)),
      mutex_(*mutexOwner_),
      playlist_(std::move(playlist)),
      movie_(playlist_->movies().front()),
      downloadPath_(downloadPath),
      sourceURL_(sourceURL),
      baseURL_(directoryOfURL(sourceURL)),
      downloadId_(downloadId) {}

QNMovieDownloadSet::~QNMovieDownloadSet() = default;

void QNMovieDownloadSet::listQualities(const std::shared_ptr<QNSessionController>& controller) {
  for (const auto& track : movie_->tracks()) {
    for (const auto& quality : track->qualities()) {
      if (qualityInfoMap_.contains(quality)) continue;
      auto info = QNQualityDownloadInfo::infoWithBaseURL(baseURL_, downloadPath_, quality,
                                                         shared_from_this(), controller);
      qualities_.push_back(info);
      qualityInfoMap_[quality] = std::move(info);
    }
  }
}

void QNMovieDownloadSet::openProperties(const std::string& manifestName) {
  platform::ErrorPtr unread;
  const auto open = [&] {
    return QNMutableMovieDownloadProperties::propertiesWithSourceURL(
        sourceURL_, downloadPath_, manifestName, QNMoviePropertiesFileName, &unread);
  };
  properties_ = open();
  if (!properties_ && !unread) {
    // What was read and is not usable is kept for a person to look at.
    const std::string path = FileManager::pathByAppending(downloadPath_, QNMoviePropertiesFileName);
    QNEngineLog(QNLogLevelError, "Error: Setting damaged properties file aside: %@",
                path + kDamagedSuffix);
    (void)FileManager::defaultManager().moveItem(path, path + kDamagedSuffix);
    properties_ = open();
  }
  if (unread) {
    // It may be whole: nothing is put in its place.
    throw platform::Exception(QNMovieDownloadSetException, "Properties file cannot be read",
                              {{"NSError", std::move(unread)}});
  }
  if (!properties_) misuse("Properties file can neither be read nor replaced");
  places_->setProperties(properties_);
  readHeaderOrigins();
}

// One walk over the directory, whatever is listed: no look at a file that is not there.
void QNMovieDownloadSet::pickUpStoredFiles() {
  const StoredFiles files(downloadPath_);
  downloadedBytes_ = files.total();
  if (files.total() == 0) return;
  for (const QualityInfo& info : qualities_) {
    size_t found = 0;
    bool hasOwn = false;
    for (const Resource& resource : info->resources()) {
      const auto place = places_->placeOf(*resource);
      const int64_t size = place ? files.sizeOf(*place) : 0;
      if (size == 0 || !places_->isStoredFor(*resource, *place)) continue;
      info->resourceCompleteWithBytesPreloaded(resource, size);
      ++found;
      hasOwn = hasOwn || !places_->isShared(*place);
    }
    if (found == 0) continue;
    if (found == info->resources().size()) {
      downloadedQualitiesInfo_.push_back(info);
    } else if (hasOwn && isSelectable(*info->quality())) {
      // A file that others list too says nothing about which of them was wanted.
      _selectQuality(info);
    }
  }
}

void QNMovieDownloadSet::updateProperties() {
  if (removed_) return;  // the directory is another download's by now, or nobody's
  uint64_t video = 0, audio = 0, text = 0;
  std::vector<std::string> identifiers;
  for (const QualityInfo& info : downloadedQualitiesInfo_) {
    const QNMediaType type = info->quality()->type();
    video += type == QNMediaTypeVideo;
    audio += type == QNMediaTypeAudio;
    text += type == QNMediaTypeText;
    identifiers.push_back(info->quality()->identifier());
  }
  properties_->setNumberOfDownloadedQualities(downloadedQualitiesInfo_.size());
  properties_->setNumberOfDownloadedVideoQualities(video);
  properties_->setNumberOfDownloadedAudioQualities(audio);
  properties_->setNumberOfDownloadedTextQualities(text);
  properties_->setDownloadedQualityIdentifiers(identifiers);
}

// A kill between a file and its record, or a removal, leaves the record behind.
void QNMovieDownloadSet::writeChangedProperties() {
  std::vector<std::string> downloaded;
  for (const QualityInfo& info : downloadedQualitiesInfo_)
    downloaded.push_back(info->quality()->identifier());
  auto recorded = properties_->downloadedQualityIdentifiers().value_or(std::vector<std::string>());
  const bool sameCount = properties_->numberOfDownloadedQualities() == downloaded.size();
  const uint64_t byType = properties_->numberOfDownloadedVideoQualities() +
                          properties_->numberOfDownloadedAudioQualities() +
                          properties_->numberOfDownloadedTextQualities();
  // The order says when what completed; a rebuild need not change it.
  std::sort(downloaded.begin(), downloaded.end());
  std::sort(recorded.begin(), recorded.end());
  if (sameCount && byType == downloaded.size() && recorded == downloaded) return;
  updateProperties();
}

// Removal

void QNMovieDownloadSet::removeDownloadedQuality(const Quality& quality) {
  RecursiveLock lock(mutex_);
  if (numActive_ != 0) misuse("Can't remove quality in non-idle state");
  const QualityInfo info = requiredInfo(quality);
  std::vector<QualityInfo> others = downloadedQualitiesInfo_;
  others.insert(others.end(), selectedQualitiesInfo_.begin(), selectedQualitiesInfo_.end());
  others.erase(std::remove(others.begin(), others.end(), info), others.end());
  const bool removed = _removeDownloadedQuality(info, places_->placesKeptBy(others));
  writeChangedProperties();
  _checkInvariants();
  if (!removed) misuse("Failed to remove all resource files for quality");
}

void QNMovieDownloadSet::removeAllDownloadedQualities() {
  RecursiveLock lock(mutex_);
  if (numActive_ != 0) misuse("Can't remove qualities in non-idle state");
  bool removed = true;
  for (const QualityInfo& info : qualities_)
    removed = _removeDownloadedQuality(info, {}) && removed;
  writeChangedProperties();
  _checkInvariants();
  if (!removed) misuse("Failed to remove all resource files for all qualities");
}

bool QNMovieDownloadSet::_removeDownloadedQuality(const QualityInfo& info,
                                                  const std::unordered_set<std::string>& kept) {
  auto& files = FileManager::defaultManager();
  size_t failures = 0;
  std::unordered_set<std::string> gone;
  for (const Resource& resource : info->resources()) {
    if (removed_) break;  // what lies there is another download's
    const auto place = places_->placeOf(*resource);
    if (!place || kept.contains(*place) || !places_->isStoredFor(*resource, *place)) continue;
    const std::string path = places_->pathOf(*place);
    if (!files.isRegularFile(path)) continue;
    if (files.removeItem(path)) {
      ++failures;
    } else {
      places_->didRemove(*place);
      if (places_->hasSharedPlaces()) gone.insert(*place);
    }
  }
  forgetFiles(gone);
  uncountCompleted(info);
  info->reset();
  downloadedQualitiesInfo_.erase(
      std::remove(downloadedQualitiesInfo_.begin(), downloadedQualitiesInfo_.end(), info),
      downloadedQualitiesInfo_.end());
  return failures == 0;
}

// Qualities that are neither selected nor downloaded remember what was stored for them before.
void QNMovieDownloadSet::forgetFiles(const std::unordered_set<std::string>& places) {
  if (places.empty()) return;
  for (const QualityInfo& info : qualities_) {
    if (isQualitySelected(info->quality()) || isQualityDownloaded(info->quality())) continue;
    for (const Resource& resource : info->resources()) {
      const auto place = resource->completed() ? places_->placeOf(*resource) : std::nullopt;
      if (place && places.contains(*place)) info->resourceForgetFile(resource);
    }
  }
}

// Places

platform::ErrorPtr QNMovieDownloadSet::errorForPlace(const QNResourceDownloadInfo& resource) const {
  RecursiveLock lock(mutex_);
  return places_ ? places_->errorFor(resource) : nullptr;
}

platform::ErrorPtr QNMovieDownloadSet::prepareToStore(const Resource& resource) {
  RecursiveLock lock(mutex_);
  if (auto error = places_->errorFor(*resource)) return error;
  places_->willStore(*resource);
  return nullptr;
}
