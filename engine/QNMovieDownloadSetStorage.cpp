#include <algorithm>
#include <cerrno>
#include <chrono>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "engine/QNDownloadRecord.h"
#include "engine/QNEngineLog.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "engine/QNStoredPlaces.h"
#include "engine/QNUniqueString.h"
#include "platform/BootIdentifier.h"
#include "platform/DispatchQueue.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/URL.h"
#include "platform/host/QNLog.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNQuality.h"
#include "playlist/QNTrack.h"

using platform::FileManager;
using platform::RecursiveLock;

// A set and its directory: construction, what is picked up, properties, removal.

namespace {

constexpr std::chrono::seconds kFlushInterval{1};  // while files arrive

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

std::string originOfURL(const std::string& text) {
  const auto url = platform::URL::URLWithString(text);
  return url ? url->origin() : std::string();
}

std::string swappedCase(std::string text) {
  for (char& c : text) {
    const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (isLetter) c = static_cast<char>(c ^ 0x20);
  }
  return text;
}

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
  set->openRecord(construction.record, controller);
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
      sourceOrigin_(originOfURL(sourceURL)),
      downloadId_(downloadId),
      holderName_(QNUniqueString()) {}

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
                path + QNDamagedSuffix);
    (void)FileManager::defaultManager().moveItem(path, path + QNDamagedSuffix);
    properties_ = open();
  }
  if (unread) {
    // It may be whole: nothing is put in its place.
    throw platform::Exception(QNMovieDownloadSetException, "Properties file cannot be read",
                              {{"NSError", std::move(unread)}});
  }
  if (!properties_) misuse("Properties file can neither be read nor replaced");
  readHeaderOrigins();
  // No resource may have this name, so what answers to it is the properties file itself.
  const std::string folded =
      FileManager::pathByAppending(downloadPath_, swappedCase(QNMoviePropertiesFileName));
  if (FileManager::defaultManager().fileExistsAtPath(folded)) places_->foldCase(qualities_);
}

void QNMovieDownloadSet::openRecord(std::shared_ptr<QNDownloadRecord> record,
                                    const std::shared_ptr<QNSessionController>& controller) {
  if (!record) {
    const auto session = controller ? controller->downloadSession() : nullptr;
    record = QNDownloadRecord::load(
        downloadPath_, session ? session->bootIdentifier() : platform::currentBootIdentifier());
  }
  record_ = std::move(record);
  if (const auto& error = record_->readError()) {
    throw platform::Exception(QNMovieDownloadSetException, error->localizedDescription());
  }
  places_->readOwners(*record_, *properties_);
}

// One walk over the directory, whatever is listed: no look at a file that is not there.
void QNMovieDownloadSet::pickUpStoredFiles() {
  const auto sizes = _sizesOfFiles(&downloadedBytes_);
  size_t found = 0;
  if (!sizes.empty()) {
    for (const QualityInfo& info : qualities_)
      found += pickUpQuality(info, sizes);
  }
  record_->forgetFiles();
  if (found > 0) return;
  if (const auto error = makeRecord()) {
    QNEngineLog(QNLogLevelError, "Error: Failed to make the record of stored files: %@",
                error->localizedDescription());
  }
}

// By the keys of their places; a file of 0 bytes counts as absent.
QNMovieDownloadSet::Sizes QNMovieDownloadSet::_sizesOfFiles(int64_t* total) const {
  Sizes sizes;
  for (auto& file : FileManager::defaultManager().filesBelow(downloadPath_)) {
    if (file.path == QNDownloadRecordFileName) continue;
    if (total) *total += file.size;
    if (file.size > 0) sizes.emplace(places_->keyOf(file.path), file.size);
  }
  return sizes;
}

// The size of the file that counts for a resource, 0 when there is none. One that is there and does
// not count is remembered.
int64_t QNMovieDownloadSet::_storedSizeOf(const Resource& resource, const Sizes& sizes) {
  const auto place = places_->placeOf(*resource);
  if (!place) return 0;
  const std::string key = places_->keyOf(*place);
  const auto file = sizes.find(key);
  if (file == sizes.end()) return 0;
  if (!record_->trusts(key, file->second)) {
    untrusted_.insert(key);
    return 0;
  }
  return places_->isStoredFor(*resource, *place) ? file->second : 0;
}

size_t QNMovieDownloadSet::pickUpQuality(const QualityInfo& info, const Sizes& sizes) {
  size_t found = 0;
  bool hasOwn = false;
  for (const Resource& resource : info->resources()) {
    const int64_t size = _storedSizeOf(resource, sizes);
    if (size == 0) continue;
    info->resourceCompleteWithBytesPreloaded(resource, size);
    ++found;
    hasOwn = hasOwn || !places_->isShared(*places_->placeOf(*resource));
  }
  if (found == 0) return 0;
  if (found == info->resources().size()) {
    downloadedQualitiesInfo_.push_back(info);
  } else if (hasOwn && isSelectable(*info->quality())) {
    // A file that others list too says nothing about which of them was wanted.
    _selectQuality(info);
  }
  return found;
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
  const Hold hold = _holdToChange();
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
  const Hold hold = _holdToChange();
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
  std::vector<std::string> recorded;
  for (const Resource& resource : info->resources()) {
    if (removed_) break;  // what lies there is another download's
    const auto place = places_->placeOf(*resource);
    if (!place || kept.contains(places_->keyOf(*place)) || !places_->isStoredFor(*resource, *place))
      continue;
    const std::string path = places_->pathOf(*place);
    if (!files.isRegularFile(path)) continue;
    if (files.removeItem(path)) {
      ++failures;
    } else {
      places_->didRemove(*place);
      recorded.push_back(places_->keyOf(*place));
      if (places_->hasSharedPlaces()) gone.insert(recorded.back());
    }
  }
  record_->remove(recorded);
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
      if (place && places.contains(places_->keyOf(*place))) info->resourceForgetFile(resource);
    }
  }
}

// Places

platform::ErrorPtr QNMovieDownloadSet::errorForPlace(const QNResourceDownloadInfo& resource) const {
  RecursiveLock lock(mutex_);
  return places_ ? places_->errorFor(resource) : nullptr;
}

// The old file goes before the line of the new one is written, so that no kill leaves one under the
// name of the other.
platform::ErrorPtr QNMovieDownloadSet::prepareToStore(const Resource& resource,
                                                      const QNStoredFile& file, bool& isThere) {
  RecursiveLock lock(mutex_);
  const auto place = places_->placeOf(*resource);
  // Any other file has a place of its own.
  if (!place || places_->isContended(*place)) {
    if (auto error = places_->errorFor(*resource)) return error;
  }
  if (!place) return nullptr;
  const std::string key = places_->keyOf(*place);
  auto& files = FileManager::defaultManager();
  isThere = places_->isShared(*place) && !places_->isContended(*place) &&
            !untrusted_.contains(key) && files.sizeOfFile(places_->pathOf(*place)) == file.length;
  if (isThere) return nullptr;
  if (untrusted_.contains(key) || places_->isUnowned(*place)) {
    const auto error = files.removeItem(places_->pathOf(*place));
    if (error && error->code() != ENOENT) return error;
    untrusted_.erase(key);
  }
  if (auto error = makeRecord()) return error;
  if (auto error = record_->add(key, file)) return error;
  places_->didRecord(*place, file.address);
  return nullptr;
}

// What was stored before there were records counts from here on because it is recorded.
platform::ErrorPtr QNMovieDownloadSet::makeRecord() {
  if (record_->isThere()) return nullptr;
  std::vector<QNDownloadRecord::Adopted> adopted;
  for (const QualityInfo& info : qualities_) {
    if (info->numCompleted() == 0) continue;
    for (const Resource& resource : info->resources()) {
      const auto place = places_->placeOf(*resource);
      if (!place || !resource->completed() || resource->failed()) continue;
      const bool isContended = places_->isContended(*place);
      adopted.push_back({places_->keyOf(*place), resource->downloadedBytes(),
                         isContended ? QNStoredPlaces::addressOf(*resource) : std::string()});
    }
  }
  return record_->make(adopted);
}

// What is on the disk

void QNMovieDownloadSet::didStore(const Resource& resource, const std::string& path) {
  RecursiveLock lock(mutex_);
  // As a file that the application makes itself.
  if (!mediaMode_) mediaMode_ = 0666 & ~FileManager::umaskOfProcess();
  (void)FileManager::defaultManager().setMode(path, *mediaMode_);
  unflushed_.push_back(resource);
  scheduleFlush();
}

void QNMovieDownloadSet::scheduleFlush() {
  if (std::exchange(flushIsDue_, true)) return;
  platform::DispatchQueue::globalBackgroundQueue()->after(kFlushInterval,
                                                          [weak = weak_from_this()] {
                                                            const auto self = weak.lock();
                                                            if (!self) return;
                                                            {
                                                              RecursiveLock lock(self->mutex_);
                                                              self->flushIsDue_ = false;
                                                            }
                                                            self->flushStoredFiles();
                                                          });
}

bool QNMovieDownloadSet::isLastOfItsQuality(const Resource& resource) const {
  RecursiveLock lock(mutex_);
  const QualityInfo info = resource->quality();
  return info && info->numCompleted() + 1 == info->resources().size();
}

void QNMovieDownloadSet::flushStoredFiles() {
  const auto self = shared_from_this();
  platform::MutexLock flushing(flushMutex_);
  std::vector<Resource> covered;
  QNDownloadRecord::FlushPoint point;
  {
    RecursiveLock lock(mutex_);
    if ((unflushed_.empty() && !std::exchange(othersUnflushed_, false)) || removed_) return;
    covered.swap(unflushed_);
    point = record_->flushPoint();
  }
  const auto error = point.file ? point.file->flushFileSystem() : point.error;
  RecursiveLock lock(mutex_);
  if (removed_) return;
  if (!error) return record_->mark(point);
  QNEngineLog(QNLogLevelError, "Error: Failed to bring stored files to the disk: %@",
              error->localizedDescription());
  for (const Resource& resource : covered) {
    if (removed_) return;  // by a delegate: what lies there may be another download's
    loseFile(resource, error);
  }
  _checkInvariants();
}

// Nobody knows what of it is there; asked again, the system would say that all is well.
void QNMovieDownloadSet::loseFile(const Resource& resource, const platform::ErrorPtr& error) {
  const QualityInfo info = resource->quality();
  const auto place = places_->placeOf(*resource);
  if (!info || !place) return;
  (void)FileManager::defaultManager().removeItem(places_->pathOf(*place));
  places_->didRemove(*place);
  const std::string key = places_->keyOf(*place);
  record_->remove({key});
  if (resource->downloadTask()) return resourceCompleteWithError(resource, error);
  loseResource(resource, error);
  if (!places_->isShared(*place)) return;
  for (const QualityInfo& other : selectedQualitiesInfo()) {
    for (const Resource& same : other->resources()) {
      const auto its = same->completed() ? places_->placeOf(*same) : std::nullopt;
      if (its && places_->keyOf(*its) == key) loseResource(same, error);
    }
  }
}

void QNMovieDownloadSet::loseResource(const Resource& resource, const platform::ErrorPtr& error) {
  const QualityInfo info = resource->quality();
  if (info->completed() && !info->failed()) return;  // told, of what was on the disk
  const int64_t oldBytes = info->downloadedBytes();
  info->resourceLoseFile(resource, error);
  _updateDownloadedFrom(oldBytes, info->downloadedBytes());
}
