#include "engine/QNMovieDownloadSet.h"

#include <algorithm>
#include <utility>

#include "engine/QNEngineLog.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "engine/QNResourceId.h"
#include "engine/QNStoredPlaces.h"
#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/host/QNLog.h"
#include "playlist/QNMovie.h"
#include "playlist/QNQuality.h"

using platform::assertThat;
using platform::RecursiveLock;

// Selection, control and the events of a set. What lies on disk: QNMovieDownloadSetStorage.cpp;
// figures: QNMovieDownloadSetFigures.cpp.

namespace {

constexpr size_t kParallellDownloads = 4;  // every start returns to it

[[noreturn]] void misuse(const char* reason) {
  throw platform::Exception(QNMovieDownloadSetException, reason);
}

void eraseFrom(std::vector<std::shared_ptr<QNQualityDownloadInfo>>& list,
               const std::shared_ptr<QNQualityDownloadInfo>& info) {
  list.erase(std::remove(list.begin(), list.end(), info), list.end());
}

bool contains(const std::vector<std::shared_ptr<QNQualityDownloadInfo>>& list,
              const std::shared_ptr<QNQualityDownloadInfo>& info) {
  return std::find(list.begin(), list.end(), info) != list.end();
}

bool isRunning(const QNQualityDownloadInfo& info) {
  return info.status() == QNDownloadStatusRunning;
}

}  // namespace

// Tells the delegate, if there is one. The state is settled before, so that the delegate may call
// back in, and read again afterwards.
template <class Call>
void QNMovieDownloadSet::tell(Call call) {
  const Delegate delegate = delegate_.lock();
  if (!delegate) return;
  try {
    call(*delegate, shared_from_this());
  } catch (...) {
    QNEngineLog(QNLogLevelError, "Error: Exception in download set delegate: %@",
                platform::describeCurrentException());
  }
}

void QNMovieDownloadSet::tellStatus(QNDownloadStatus status) {
  tell([&](QNMovieDownloadSetDelegate& delegate, const auto& self) {
    delegate.movieDownloadSetDidChangeStatus(self, status);
  });
}

// Selection

QNMovieDownloadSet::QualityInfo QNMovieDownloadSet::requiredInfo(const Quality& quality) const {
  const auto entry = qualityInfoMap_.find(quality);
  if (entry == qualityInfoMap_.end()) misuse("Quality not available in movie");
  return entry->second;
}

size_t& QNMovieDownloadSet::countOfType(const QualityInfo& info) {
  switch (info->quality()->type()) {
    case QNMediaTypeVideo:
      return numVideoQualities_;
    case QNMediaTypeAudio:
      return numAudioQualities_;
    case QNMediaTypeText:
      return numTextQualities_;
    case QNMediaTypeUnknown:
      break;
  }
  misuse("Quality has invalid media type");
}

void QNMovieDownloadSet::selectQuality(const Quality& quality) {
  RecursiveLock lock(mutex_);
  if (numActive_ != 0) misuse("Can't select quality in non-idle state");
  _selectQuality(requiredInfo(quality));
  _checkInvariants();
}

void QNMovieDownloadSet::deselectQuality(const Quality& quality) {
  RecursiveLock lock(mutex_);
  if (numActive_ != 0) misuse("Can't deselect quality in non-idle state");
  _deselectQuality(requiredInfo(quality));
  _checkInvariants();
}

void QNMovieDownloadSet::selectAllQualities() {
  RecursiveLock lock(mutex_);
  if (numActive_ != 0) misuse("Can't select quality in non-idle state");
  for (const QualityInfo& info : qualities_)
    _selectQuality(info);
  _checkInvariants();
}

void QNMovieDownloadSet::deselectAllQualities() {
  RecursiveLock lock(mutex_);
  if (numActive_ != 0) misuse("Can't deselect quality in non-idle state");
  for (const QualityInfo& info : selectedQualitiesInfo())
    _deselectQuality(info);
  _checkInvariants();
}

void QNMovieDownloadSet::_selectQuality(const QualityInfo& info) {
  if (contains(selectedQualitiesInfo_, info) || contains(downloadedQualitiesInfo_, info)) return;
  ++countOfType(info);
  _addSelectedQuality(info);
}

void QNMovieDownloadSet::_deselectQuality(const QualityInfo& info) {
  if (!contains(selectedQualitiesInfo_, info)) return;
  --countOfType(info);
  _removeSelectedQuality(info);
}

void QNMovieDownloadSet::_addSelectedQuality(const QualityInfo& info) {
  selectedQualitiesInfo_.push_back(info);
  (void)_updateExpectedFrom(QNDownloadSizeUnknown, info->expectedBytes());
  _updateDownloadedFrom(0, info->downloadedBytes());
  // Completed, then deselected before anything settled it: it counts again.
  if (info->completed()) countCompleted(info);
}

void QNMovieDownloadSet::_removeSelectedQuality(const QualityInfo& info) {
  uncountCompleted(info);
  eraseFrom(selectedQualitiesInfo_, info);
  (void)_updateExpectedFrom(info->expectedBytes(), QNDownloadSizeUnknown);
  _updateDownloadedFrom(info->downloadedBytes(), 0);
}

// A selected quality that is completed counts, however it came to be both.
void QNMovieDownloadSet::countCompleted(const QualityInfo& info) {
  assertThat(numCompleted_ < selectedQualitiesInfo_.size(),
             "Overflow in completed quality download counter");
  ++numCompleted_;
  if (info->failed()) ++numFailed_;
}

void QNMovieDownloadSet::uncountCompleted(const QualityInfo& info) {
  if (!info->completed() || !contains(selectedQualitiesInfo_, info)) return;
  --numCompleted_;
  if (info->failed()) --numFailed_;
}

// Control

QNHeadersPtr QNMovieDownloadSet::_mergeHeaders(const QNHeadersPtr& headers) const {
  if (!headers) return additionalHeaders_;
  if (!additionalHeaders_) return headers;
  QNHeaders merged = *headers;
  for (const auto& [name, value] : *additionalHeaders_) {
    merged.erase(name);  // the set's spelling of the name counts too
    merged[name] = value;
  }
  return std::make_shared<const QNHeaders>(std::move(merged));
}

bool QNMovieDownloadSet::downloadWithAdditionalHeaders(const QNHeadersPtr& headers) {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  if (numActive_ != 0 || removed_) return false;
  const Hold hold = _holdToStart();
  if (selectedQualitiesInfo_.empty()) return false;
  mediaMode_.reset();
  const QNHeadersPtr merged = _mergeHeaders(headers);
  for (const QualityInfo& info : selectedQualitiesInfo_) {
    // A cancel leaves errors and spent attempts behind, of a quality that did not complete as well.
    (void)info->clear();
    info->setAdditionalHeaders(merged);
    info->setParallellDownloads(kParallellDownloads);
    if (!info->download()) continue;
    hold_ = hold;
    ++numActive_;
    ++numRunning_;
  }
  _checkInvariants();
  if (numRunning_ == 0) return false;
  ++starts_;
  tellStatus(QNDownloadStatusRunning);
  return true;
}

void QNMovieDownloadSet::_pauseQuality(const QualityInfo& info) {
  if (!info->pause()) return;
  assertThat(numRunning_ > 0, "Underflow in running qualities counter");
  --numRunning_;
}

void QNMovieDownloadSet::pause() {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  if (numRunning_ == 0) return;
  for (const QualityInfo& info : selectedQualitiesInfo_)
    _pauseQuality(info);
  assertThat(numRunning_ == 0, "Expected running qualities to be zero");
  _checkInvariants();
  tellStatus(QNDownloadStatusPaused);
}

void QNMovieDownloadSet::_resumeQuality(const QualityInfo& info) {
  // Found again after a relaunch, a quality may be running with some of its tasks paused: it is
  // resumed, and counted already.
  const bool wasRunning = isRunning(*info);
  if (!info->resume() || wasRunning) return;
  assertThat(numRunning_ < selectedQualitiesInfo_.size(), "Overflow in running qualities counter");
  ++numRunning_;
}

void QNMovieDownloadSet::resume() {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  if (numActive_ == numRunning_) return;
  for (const QualityInfo& info : selectedQualitiesInfo_)
    _resumeQuality(info);
  assertThat(numActive_ == numRunning_, "Expected all active qualities to be running");
  _checkInvariants();
  tellStatus(QNDownloadStatusRunning);
}

void QNMovieDownloadSet::_cancelQuality(const QualityInfo& info) {
  const bool wasRunning = isRunning(*info);
  const int64_t oldBytes = info->downloadedBytes();
  if (!info->cancel()) return;
  _updateDownloadedFrom(oldBytes, info->downloadedBytes());
  if (wasRunning) {
    assertThat(numRunning_ > 0, "Underflow in running qualities counter");
    --numRunning_;
  }
  assertThat(numActive_ > 0, "Underflow in active qualities counter");
  --numActive_;
}

void QNMovieDownloadSet::cancel() {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  if (numActive_ == 0) return;
  for (const QualityInfo& info : selectedQualitiesInfo_)
    _cancelQuality(info);
  assertThat(numActive_ == 0, "Expected active qualities to be zero");
  assertThat(numRunning_ == 0, "Expected running qualities to be zero");
  _checkInvariants();
  _releaseHoldWhenIdle();
  tellStatus(QNDownloadStatusIdle);
}

// Events

void QNMovieDownloadSet::resourceBytesDownloadedAndExpected(const Resource& resource,
                                                            int64_t downloaded, int64_t expected) {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const QualityInfo info = resource->quality();
  assertThat(info && info->set() == self, "Quality does not belong to this set");
  const QNDownloadSize oldExpected = info->expectedBytes();
  const int64_t oldBytes = info->downloadedBytes();
  info->resourceBytesDownloadedBytesExpected(resource, downloaded, expected);
  (void)_updateExpectedFrom(oldExpected, info->expectedBytes());
  _updateDownloadedFrom(oldBytes, info->downloadedBytes());

  const QNDownloadProgress ofQuality = info->progress();
  if (!QNDownloadProgressIsUnknown(ofQuality)) {
    tell([&](QNMovieDownloadSetDelegate& delegate, const auto& set) {
      delegate.movieDownloadSetDidUpdateProgressForQuality(set, ofQuality, info->quality());
    });
  }
  const QNDownloadProgress ofSet = progress();
  if (!QNDownloadProgressIsUnknown(ofSet)) {
    tell([&](QNMovieDownloadSetDelegate& delegate, const auto& set) {
      delegate.movieDownloadSetDidUpdateProgress(set, ofSet);
    });
  }
}

void QNMovieDownloadSet::resourceCompleteWithError(const Resource& resource,
                                                   const platform::ErrorPtr& error) {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  _checkInvariants();
  _resourceCompleteWithError(resource, error);
}

// Whether nothing of what was selected is left to complete. A quality that lists nothing never
// completes, and must not keep the others from being finished.
bool QNMovieDownloadSet::everySelectedCompleted() const {
  const auto empty = std::count_if(selectedQualitiesInfo_.begin(), selectedQualitiesInfo_.end(),
                                   [](const auto& info) { return info->resources().empty(); });
  return numCompleted_ + static_cast<size_t>(empty) == selectedQualitiesInfo_.size();
}

void QNMovieDownloadSet::_resourceCompleteWithError(const Resource& resource,
                                                    const platform::ErrorPtr& error) {
  const QualityInfo info = resource->quality();
  assertThat(info && info->set().get() == this, "Quality does not belong to this set");
  assertThat(!info->completed(), "Quality already completed");
  const bool wasRunning = isRunning(*info);
  if (!info->resourceCompleteWithError(resource, error)) return;

  assertThat(numActive_ > 0, "Underflow in active qualities counter");
  --numActive_;
  if (wasRunning) {
    assertThat(numRunning_ > 0, "Underflow in running qualities counter");
    --numRunning_;
  }
  countCompleted(info);
  _checkInvariants();

  const bool wasLast = everySelectedCompleted();
  const bool cameToRest = numActive_ == 0;
  const uint64_t start = starts_;
  tell([&](QNMovieDownloadSetDelegate& delegate, const auto& set) {
    delegate.movieDownloadSetDidCompleteQualityWithError(set, info->quality(), info->error());
  });
  // The delegate may have selected, deselected, cancelled, or started the set again.
  if (starts_ != start || numActive_ != 0) return;
  if (wasLast || everySelectedCompleted()) {
    _completeWithError(_makeError());
  } else if (cameToRest) {
    // What is left was selected for its files or its tasks after a relaunch, and never started. It
    // is the application's to start, which has to know that it can.
    _releaseHoldWhenIdle();
    tellStatus(QNDownloadStatusIdle);
  }
}

platform::ErrorPtr QNMovieDownloadSet::_makeError() const {
  if (numFailed_ == 0) return nullptr;
  QNQualityErrors errors;
  for (const QualityInfo& info : selectedQualitiesInfo_) {
    if (info->failed()) errors[info->quality()->identifier()] = info->error();
  }
  return platform::Error::errorWithDomain(
      QNDownloadErrorDomain, QNSetDownloadError,
      {{QNMovieKey, movie_}, {QNQualityErrorsKey, std::move(errors)}});
}

void QNMovieDownloadSet::_completeWithError(const platform::ErrorPtr& error) {
  assertThat(numActive_ == 0, "Expected active qualities to be zero");
  assertThat(numRunning_ == 0, "Expected running qualities to be zero");
  settle();
  _releaseHoldWhenIdle();
  tellStatus(QNDownloadStatusIdle);
  tell([&](QNMovieDownloadSetDelegate& delegate, const auto& set) {
    delegate.movieDownloadSetDidCompleteWithError(set, error);
  });
}

// Moves what completed to the downloaded list and makes what failed startable again.
void QNMovieDownloadSet::settle() {
  const std::vector<QualityInfo> selected = selectedQualitiesInfo_;
  for (auto entry = selected.rbegin(); entry != selected.rend(); ++entry) {
    const QualityInfo& info = *entry;
    if (info->completed() && !info->failed()) {
      _deselectQuality(info);
      downloadedQualitiesInfo_.push_back(info);
    } else {
      (void)info->clear();
    }
  }
  numCompleted_ = 0;
  numFailed_ = 0;
  downloadedBytes_ = 0;
  updateProperties();
  _checkInvariants();
}

// Found again after a relaunch

bool QNMovieDownloadSet::reattachResource(const QNResourceId& id, const Task& task) {
  RecursiveLock lock(mutex_);
  if (id.status() != QNDownloadStatusPaused && id.status() != QNDownloadStatusRunning) return false;
  const QualityInfo info = infoForTask(id, *task);
  if (!info) return false;
  const auto hold = _holdForTask();
  if (!hold) return false;
  const bool wasSelected = contains(selectedQualitiesInfo_, info);
  _selectQuality(info);
  const bool wasIdle = info->status() == QNDownloadStatusIdle;
  const bool wasRunning = isRunning(*info);
  const QNDownloadSize oldExpected = info->expectedBytes();
  if (!info->reattachResource(id, task)) {
    if (!wasSelected) _deselectQuality(info);
    return false;
  }
  hold_ = *hold;
  if (wasIdle) ++numActive_;
  if (!wasRunning && isRunning(*info)) ++numRunning_;
  (void)_updateExpectedFrom(oldExpected, info->expectedBytes());
  takeHeadersOfTask(task);
  _checkInvariants();
  return true;
}

// Identifiers repeat in real manifests, and an index alone says little: the address decides.
QNMovieDownloadSet::QualityInfo QNMovieDownloadSet::infoForTask(
    const QNResourceId& id, const platform::URLSessionDownloadTask& task) const {
  if (!id.qualityId()) return nullptr;
  const auto request = task.originalRequest();
  for (const QualityInfo& info : qualities_) {
    if (info->quality()->identifier() != *id.qualityId()) continue;
    if (id.resourceIndex() >= info->resources().size()) continue;
    if (request && info->resources()[id.resourceIndex()]->matchesRequest(*request)) return info;
  }
  return nullptr;
}

void QNMovieDownloadSet::setRemoved(bool removed) {
  RecursiveLock lock(mutex_);
  removed_ = removed;
}

bool QNMovieDownloadSet::isRemoved() const {
  RecursiveLock lock(mutex_);
  return removed_;
}
