#include <algorithm>
#include <utility>

#include "engine/QNMovieDownloadSet.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNSizeRollUp.h"
#include "engine/QNStoredPlaces.h"
#include "platform/Exception.h"
#include "playlist/QNQuality.h"

using platform::assertThat;
using platform::RecursiveLock;

// What a set tells of itself: sizes, progress, counters, and their recount.

QNHeadersPtr QNMovieDownloadSet::additionalHeaders() const {
  RecursiveLock lock(mutex_);
  return additionalHeaders_;
}

void QNMovieDownloadSet::setAdditionalHeaders(QNHeadersPtr headers) {
  RecursiveLock lock(mutex_);
  additionalHeaders_ = std::move(headers);
  adoptHeaders(nullptr);
}

std::shared_ptr<QNMovieDownloadSetDelegate> QNMovieDownloadSet::delegate() const {
  RecursiveLock lock(mutex_);
  return delegate_.lock();
}

void QNMovieDownloadSet::setDelegate(const std::shared_ptr<QNMovieDownloadSetDelegate>& delegate) {
  RecursiveLock lock(mutex_);
  delegate_ = delegate;
}

std::any QNMovieDownloadSet::userObject() const {
  RecursiveLock lock(mutex_);
  return userObject_;
}

void QNMovieDownloadSet::setUserObject(std::any object) {
  RecursiveLock lock(mutex_);
  userObject_.swap(object);  // the old one goes with the argument, after the lock
}

// The roll-up of a quality's expected size, as a quality rolls up its resources.
bool QNMovieDownloadSet::_updateExpectedFrom(QNDownloadSize oldSize, QNDownloadSize newSize) {
  return QNRollUpSize(sizedBytes_, numSized_, numEstimated_, qualityInfoMap_.size(), oldSize,
                      newSize);
}

void QNMovieDownloadSet::_updateDownloadedFrom(int64_t oldBytes, int64_t newBytes) {
  downloadedBytes_ += newBytes - oldBytes;
}

QNDownloadStatus QNMovieDownloadSet::status() const {
  RecursiveLock lock(mutex_);
  if (numActive_ == 0) return QNDownloadStatusIdle;
  return numRunning_ != 0 ? QNDownloadStatusRunning : QNDownloadStatusPaused;
}

QNDownloadSize QNMovieDownloadSet::expectedBytesFor(const std::vector<QualityInfo>& infos) {
  int64_t sum = 0;
  for (const QualityInfo& info : infos)
    sum = QNSumOfSizes(sum, info->expectedBytes().value);
  return QNMakeDownloadSize(sum, true);
}

int64_t QNMovieDownloadSet::downloadedBytesFor(const std::vector<QualityInfo>& infos) {
  int64_t sum = 0;
  for (const QualityInfo& info : infos)
    sum += info->downloadedBytes();
  return sum;
}

std::vector<QNMovieDownloadSet::Quality> QNMovieDownloadSet::_qualitiesWithQualitiesInfo(
    const std::vector<QualityInfo>& infos) {
  std::vector<Quality> qualities;
  qualities.reserve(infos.size());
  for (const QualityInfo& info : infos)
    qualities.push_back(info->quality());
  return qualities;
}

QNDownloadSize QNMovieDownloadSet::_expectedBytes() const {
  return QNMakeDownloadSize(QNSumOfSizes(expectedBytesFor(selectedQualitiesInfo_).value,
                                         expectedBytesFor(downloadedQualitiesInfo_).value),
                            true);
}

QNDownloadSize QNMovieDownloadSet::expectedBytes() const {
  RecursiveLock lock(mutex_);
  return _expectedBytes();
}

int64_t QNMovieDownloadSet::downloadedBytes() const {
  RecursiveLock lock(mutex_);
  return downloadedBytes_;
}

QNDownloadProgress QNMovieDownloadSet::progress() const {
  RecursiveLock lock(mutex_);
  return QNDownloadProgressCompute(downloadedBytes_, _expectedBytes());
}

QNDownloadSize QNMovieDownloadSet::totalSize() const {
  RecursiveLock lock(mutex_);
  if (qualities_.empty()) return QNDownloadSizeUnknown;
  QNDownloadSize total = QNDownloadSizeZero;
  for (const QualityInfo& info : qualities_) {
    const QNDownloadSize expected = info->expectedBytes();
    if (QNDownloadSizeIsUnknown(expected)) return QNDownloadSizeUnknown;
    total.value = QNSumOfSizes(total.value, expected.value);
    total.estimated = total.estimated || expected.estimated;
  }
  return total;
}

QNDownloadSize QNMovieDownloadSet::selectedSize() const {
  return expectedBytes();
}

int64_t QNMovieDownloadSet::downloadedSize() const {
  RecursiveLock lock(mutex_);
  return downloadedBytesFor(downloadedQualitiesInfo_);
}

std::vector<QNMovieDownloadSet::Quality> QNMovieDownloadSet::selectedQualities() const {
  RecursiveLock lock(mutex_);
  return _qualitiesWithQualitiesInfo(selectedQualitiesInfo_);
}

std::vector<QNMovieDownloadSet::Quality> QNMovieDownloadSet::downloadedQualities() const {
  RecursiveLock lock(mutex_);
  return _qualitiesWithQualitiesInfo(downloadedQualitiesInfo_);
}

std::vector<QNMovieDownloadSet::QualityInfo> QNMovieDownloadSet::selectedQualitiesInfo() const {
  RecursiveLock lock(mutex_);
  return selectedQualitiesInfo_;
}

std::vector<QNMovieDownloadSet::QualityInfo> QNMovieDownloadSet::downloadedQualitiesInfo() const {
  RecursiveLock lock(mutex_);
  return downloadedQualitiesInfo_;
}

size_t QNMovieDownloadSet::numberOfSelectedQualities() const {
  RecursiveLock lock(mutex_);
  return selectedQualitiesInfo_.size();
}

size_t QNMovieDownloadSet::numberOfDownloadedQualities() const {
  RecursiveLock lock(mutex_);
  return downloadedQualitiesInfo_.size();
}

bool QNMovieDownloadSet::isQualitySelected(const Quality& quality) const {
  RecursiveLock lock(mutex_);
  return std::any_of(selectedQualitiesInfo_.begin(), selectedQualitiesInfo_.end(),
                     [&](const auto& info) { return info->quality() == quality; });
}

bool QNMovieDownloadSet::isQualityDownloaded(const Quality& quality) const {
  RecursiveLock lock(mutex_);
  return std::any_of(downloadedQualitiesInfo_.begin(), downloadedQualitiesInfo_.end(),
                     [&](const auto& info) { return info->quality() == quality; });
}

QNMovieDownloadSet::QualityInfo QNMovieDownloadSet::qualityInfoForQuality(
    const Quality& quality) const {
  const auto entry = qualityInfoMap_.find(quality);
  return entry == qualityInfoMap_.end() ? nullptr : entry->second;
}

QNDownloadSize QNMovieDownloadSet::expectedBytesForQuality(const Quality& quality) const {
  RecursiveLock lock(mutex_);
  const QualityInfo info = qualityInfoForQuality(quality);
  return info ? info->expectedBytes() : QNDownloadSizeUnknown;
}

int64_t QNMovieDownloadSet::downloadedBytesForQuality(const Quality& quality) const {
  RecursiveLock lock(mutex_);
  const QualityInfo info = qualityInfoForQuality(quality);
  return info ? info->downloadedBytes() : 0;
}

QNDownloadProgress QNMovieDownloadSet::progressForQuality(const Quality& quality) const {
  RecursiveLock lock(mutex_);
  const QualityInfo info = qualityInfoForQuality(quality);
  return info ? info->progress() : QNDownloadProgressUnknown;
}

int64_t QNMovieDownloadSet::resourceBytesForQuality(const Quality& quality) const {
  RecursiveLock lock(mutex_);
  const QualityInfo info = qualityInfoForQuality(quality);
  return info ? info->resourceBytes() : 0;
}

int64_t QNMovieDownloadSet::resourceBytes() const {
  RecursiveLock lock(mutex_);
  int64_t sum = 0;
  for (const QualityInfo& info : selectedQualitiesInfo_)
    sum += info->resourceBytes();
  for (const QualityInfo& info : downloadedQualitiesInfo_)
    sum += info->resourceBytes();
  return sum;
}

size_t QNMovieDownloadSet::numVideoQualities() const {
  RecursiveLock lock(mutex_);
  return numVideoQualities_;
}

size_t QNMovieDownloadSet::numAudioQualities() const {
  RecursiveLock lock(mutex_);
  return numAudioQualities_;
}

size_t QNMovieDownloadSet::numTextQualities() const {
  RecursiveLock lock(mutex_);
  return numTextQualities_;
}

size_t QNMovieDownloadSet::numSized() const {
  RecursiveLock lock(mutex_);
  return numSized_;
}

size_t QNMovieDownloadSet::numEstimated() const {
  RecursiveLock lock(mutex_);
  return numEstimated_;
}

size_t QNMovieDownloadSet::numActive() const {
  RecursiveLock lock(mutex_);
  return numActive_;
}

size_t QNMovieDownloadSet::numRunning() const {
  RecursiveLock lock(mutex_);
  return numRunning_;
}

size_t QNMovieDownloadSet::numCompleted() const {
  RecursiveLock lock(mutex_);
  return numCompleted_;
}

size_t QNMovieDownloadSet::numFailed() const {
  RecursiveLock lock(mutex_);
  return numFailed_;
}

QNDownloadSize QNMovieDownloadSet::sizedBytes() const {
  RecursiveLock lock(mutex_);
  return sizedBytes_;
}

void QNMovieDownloadSet::_checkInvariants() const {
#ifndef NDEBUG
  RecursiveLock lock(mutex_);
  size_t sized = 0, estimated = 0, active = 0, running = 0, completed = 0, failed = 0;
  size_t video = 0, audio = 0, text = 0;
  int64_t sum = 0;
  for (const QualityInfo& info : selectedQualitiesInfo_) {
    const QNDownloadSize expected = info->expectedBytes();
    const bool isSized = !QNDownloadSizeIsUnknown(expected);
    sized += isSized;
    estimated += isSized && expected.estimated;
    if (isSized) sum = QNSumOfSizes(sum, expected.value);
    active += info->status() != QNDownloadStatusIdle;
    running += info->status() == QNDownloadStatusRunning;
    completed += info->completed();
    failed += info->failed();
    video += info->quality()->type() == QNMediaTypeVideo;
    audio += info->quality()->type() == QNMediaTypeAudio;
    text += info->quality()->type() == QNMediaTypeText;
    assertThat(!isQualityDownloaded(info->quality()), "Recount: selected and downloaded");
  }
  for (const QualityInfo& info : qualities_) {
    const bool selected = isQualitySelected(info->quality());
    assertThat(selected || info->status() == QNDownloadStatusIdle, "Recount: active, not selected");
    info->_checkInvariants();
  }
  for (const QualityInfo& info : downloadedQualitiesInfo_)
    assertThat(info->completed() && !info->failed(), "Recount: downloaded, not completed");
  assertThat(sized == numSized_, "Recount: sized qualities");
  assertThat(estimated == numEstimated_, "Recount: estimated qualities");
  assertThat(sum == sizedBytes_.value, "Recount: sized bytes of the set");
  assertThat(active == numActive_, "Recount: active qualities");
  assertThat(running == numRunning_, "Recount: running qualities");
  assertThat(completed == numCompleted_, "Recount: completed qualities");
  assertThat(failed == numFailed_, "Recount: failed qualities");
  assertThat(video == numVideoQualities_, "Recount: video qualities");
  assertThat(audio == numAudioQualities_, "Recount: audio qualities");
  assertThat(text == numTextQualities_, "Recount: text qualities");
#endif
}
