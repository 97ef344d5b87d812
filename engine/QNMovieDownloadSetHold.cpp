#include <algorithm>
#include <utility>

#include "engine/QNDownloadHold.h"
#include "engine/QNDownloadRecord.h"
#include "engine/QNEngineLog.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "engine/QNStoredPlaces.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/host/QNLog.h"
#include "playlist/QNQuality.h"

using platform::FileManager;
using platform::RecursiveLock;

// Whoever changes the directory of a set holds it meanwhile, and looks first at what others did.

QNMovieDownloadSet::Hold QNMovieDownloadSet::_takeHold() {
  if (Hold hold = lastHold_.lock()) return hold;
  if (removed_) return nullptr;
  Hold hold = QNDownloadHold::take(downloadPath_);
  _useHold(hold);
  return hold;
}

void QNMovieDownloadSet::_useHold(const Hold& hold) {
  lastHold_ = hold;
  if (!hold || hold->changesHands(holderName_)) lookDue_ = true;
}

QNMovieDownloadSet::Hold QNMovieDownloadSet::_holdToStart() {
  // One that a person deleted is made again by its first file; nobody else may do so meanwhile.
  auto& files = FileManager::defaultManager();
  if (!files.isDirectory(downloadPath_))
    (void)files.createDirectoryWithIntermediates(downloadPath_);
  return _holdToChange(true);
}

QNMovieDownloadSet::Hold QNMovieDownloadSet::_holdToChange(bool isStart) {
  if (removed_) return nullptr;
  Hold hold = _takeHold();
  // Another's counters and members, too; what cannot be read now stays as it is known.
  platform::ErrorPtr unread;
  if (lookDue_)
    (void)QNMutableMovieDownloadProperties::propertiesWithLocalPath(
        downloadPath_, QNMoviePropertiesFileName, &unread);
  if (isStart && numCompleted_ != 0) settle();
  if (lookDue_) _lookAgain();
  lookDue_ = false;
  return hold;
}

// nullopt: another has it. Any other reason for having none keeps no task from going on.
std::optional<QNMovieDownloadSet::Hold> QNMovieDownloadSet::_holdForTask() {
  try {
    return _takeHold();
  } catch (const platform::Exception& exception) {
    QNEngineLog(QNLogLevelError, "Error: Transfer found again: %@",
                exception.reason() + ": " + downloadPath_);
    if (exception.userInfo().contains(QNDownloadHolderKey)) return std::nullopt;
  }
  return Hold();
}

void QNMovieDownloadSet::_releaseHoldWhenIdle() {
  if (numActive_ == 0) hold_.reset();
}

QNMovieDownloadSet::Hold QNMovieDownloadSet::takeHold() {
  RecursiveLock lock(mutex_);
  return _takeHold();
}

QNMovieDownloadSet::Hold QNMovieDownloadSet::currentHold() const {
  RecursiveLock lock(mutex_);
  return lastHold_.lock();
}

void QNMovieDownloadSet::useHold(const Hold& hold) {
  RecursiveLock lock(mutex_);
  _useHold(hold);
}

void QNMovieDownloadSet::dropHold() {
  RecursiveLock lock(mutex_);
  hold_.reset();
}

// Somebody else has held the directory since the last look. The selection stays the application's,
// except that what is whole is not selected any more.
void QNMovieDownloadSet::_lookAgain() {
  // Whoever stores or removes says so in the record.
  if (!record_->hasChanged()) return;
  const auto record = record_->readAgain();
  if (const auto& error = record->readError()) {
    throw platform::Exception(QNMovieDownloaderException, "Record of stored files cannot be read",
                              {{"NSError", error}});
  }
  record_ = record;
  places_->readOwners(*record_, *properties_);
  untrusted_.clear();
  const Sizes sizes = _sizesOfFiles();
  for (const QualityInfo& info : qualities_) {
    // Nothing was there and nothing is.
    if (!sizes.empty() || info->numCompleted() != 0) _lookAgainAt(info, sizes);
  }
  record_->forgetFiles();
  writeChangedProperties();
  _checkInvariants();
  // The other may have gone before it brought to the disk what it stored last.
  othersUnflushed_ = record_->isThere();
  if (othersUnflushed_) scheduleFlush();
}

void QNMovieDownloadSet::_lookAgainAt(const QualityInfo& info, const Sizes& sizes) {
  const bool wasSelected = isQualitySelected(info->quality());
  const bool wasCompleted = info->completed();
  const QNDownloadSize oldExpected = info->expectedBytes();
  const int64_t oldBytes = info->downloadedBytes();
  uncountCompleted(info);
  for (const Resource& resource : info->resources()) {
    const int64_t size = _storedSizeOf(resource, sizes);
    if (size == 0) {
      info->resourceForgetFile(resource);
    } else if (!resource->completed()) {
      info->resourceCompleteWithBytesPreloaded(resource, size);
    }
  }
  if (wasSelected) {
    (void)_updateExpectedFrom(oldExpected, info->expectedBytes());
    _updateDownloadedFrom(oldBytes, info->downloadedBytes());
    if (info->completed()) countCompleted(info);
  }
  if (info->completed() == wasCompleted || info->failed()) return;
  if (info->completed()) {
    _deselectQuality(info);
    downloadedQualitiesInfo_.push_back(info);
  } else {
    downloadedQualitiesInfo_.erase(
        std::remove(downloadedQualitiesInfo_.begin(), downloadedQualitiesInfo_.end(), info),
        downloadedQualitiesInfo_.end());
  }
}
