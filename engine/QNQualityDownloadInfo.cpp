#include "engine/QNQualityDownloadInfo.h"

#include <any>
#include <utility>

#include "engine/QNResourceDownloadInfo.h"
#include "engine/QNResourceId.h"
#include "engine/QNSizeRollUp.h"
#include "platform/Exception.h"
#include "playlist/QNQuality.h"
#include "playlist/QNTrack.h"

using platform::assertThat;

namespace {

constexpr int64_t kNotFound = 404;
#ifndef NDEBUG
constexpr size_t kRecountedResources = 2048;  // longer lists are not recounted at every step
#endif

platform::DataPtr resumeDataOf(const platform::Error& error) {
  const auto entry = error.userInfo().find(platform::NSURLSessionDownloadTaskResumeData);
  if (entry == error.userInfo().end()) return nullptr;
  const auto* const data = std::any_cast<platform::DataPtr>(&entry->second);
  return data ? *data : nullptr;
}

}  // namespace

// What a resource was before a step, so that the owner can be moved from there to what it is after.
struct QNQualityDownloadInfo::Change {
  explicit Change(const Resource& resource)
      : resource(*resource),
        oldExpected(resource->expectedBytes()),
        oldBytes(resource->downloadedBytes()),
        wasRunning(resource->status() == QNDownloadStatusRunning) {}

  const QNResourceDownloadInfo& resource;
  const QNDownloadSize oldExpected;
  const int64_t oldBytes;
  const bool wasRunning;
};

std::shared_ptr<QNQualityDownloadInfo> QNQualityDownloadInfo::infoWithBaseURL(
    const std::string& baseURL, const std::string& downloadPath, std::shared_ptr<QNQuality> quality,
    const std::shared_ptr<QNMovieDownloadSet>& set,
    const std::shared_ptr<QNSessionController>& controller) {
  std::shared_ptr<QNQualityDownloadInfo> info(new QNQualityDownloadInfo(
      std::make_shared<const std::string>(downloadPath), std::move(quality), set));
  info->construct(baseURL, controller);
  return info;
}

QNQualityDownloadInfo::QNQualityDownloadInfo(std::shared_ptr<const std::string> downloadPath,
                                             std::shared_ptr<QNQuality> quality,
                                             std::weak_ptr<QNMovieDownloadSet> set)
    : downloadPath_(std::move(downloadPath)), quality_(std::move(quality)), set_(std::move(set)) {}

QNQualityDownloadInfo::~QNQualityDownloadInfo() = default;

void QNQualityDownloadInfo::construct(const std::string& baseURL,
                                      const std::shared_ptr<QNSessionController>& controller) {
  const auto& builder = quality_->resourceBuilder();
  const QNResourceListPtr list = builder ? builder->fillResourcesWithBaseURL(baseURL) : nullptr;
  const size_t count = list ? list->size() : 0;
  idle_ = QNIndexSet(count, true);
  active_ = QNIndexSet(count);
  withError_ = QNIndexSet(count);
  if (count == 0) return;

  sizedBytes_ = QNDownloadSizeUnknown;
  resources_ = QNResourceDownloadInfo::infosWithResources(list, downloadPath_, shared_from_this(),
                                                          fallbackSize(count), controller);
  for (const Resource& resource : resources_) {
    const QNDownloadSize expected = resource->expectedBytes();
    if (QNDownloadSizeIsUnknown(expected)) continue;
    sizedBytes_.value =
        numSized_ == 0 ? expected.value : QNSumOfSizes(sizedBytes_.value, expected.value);
    ++numSized_;
    if (expected.estimated) {
      sizedBytes_.estimated = true;
      ++numEstimated_;
    }
  }
}

QNDownloadSize QNQualityDownloadInfo::fallbackSize(size_t resourceCount) const {
  const auto track = quality_->parent();
  if (!track || !(track->duration() > 0)) return QNDownloadSizeUnknown;
  // A duration that no file has would overflow; it says nothing about sizes either.
  const double bits = static_cast<double>(quality_->bitrate()) * track->duration();
  if (!(bits < 0x1p63)) return QNDownloadSizeUnknown;
  const auto totalBits = static_cast<int64_t>(bits);
  const double share = static_cast<double>(totalBits) / (static_cast<double>(resourceCount) * 8.0);
  return QNMakeDownloadSize(static_cast<int64_t>(share), true);
}

QNDownloadStatus QNQualityDownloadInfo::status() const {
  if (numActive_ == 0) return QNDownloadStatusIdle;
  return numRunning_ != 0 ? QNDownloadStatusRunning : QNDownloadStatusPaused;
}

platform::ErrorPtr QNQualityDownloadInfo::error() const {
  if (numFailed_ == 0) return nullptr;
  QNResourceErrors errors;
  for (size_t i = withError_.first(); i != QNIndexSet::none; i = withError_.next(i + 1))
    errors[i] = resources_[i]->error();
  return platform::Error::errorWithDomain(
      QNDownloadErrorDomain, QNQualityDownloadError,
      {{QNQualityKey, quality_}, {QNResourceErrorsKey, std::move(errors)}});
}

QNDownloadProgress QNQualityDownloadInfo::progress() const {
  return QNDownloadProgressCompute(downloadedBytes_, expectedBytes());
}

QNDownloadSize QNQualityDownloadInfo::_expectedBytes() const {
  if (numSized_ == resources_.size()) return sizedBytes_;
  if (numSized_ < 2) return QNDownloadSizeUnknown;
  const uint64_t extrapolated =
      static_cast<uint64_t>(sizedBytes_.value) * resources_.size() / numSized_;
  return QNMakeDownloadSize(static_cast<int64_t>(extrapolated), true);
}

void QNQualityDownloadInfo::_updateExpectedFrom(QNDownloadSize oldSize, QNDownloadSize newSize) {
  (void)QNRollUpSize(sizedBytes_, numSized_, numEstimated_, resources_.size(), oldSize, newSize);
}

void QNQualityDownloadInfo::_updateDownloadedFrom(int64_t oldBytes, int64_t newBytes) {
  downloadedBytes_ += newBytes - oldBytes;
}

// Brings what is kept per resource up to date after a step of that resource.
void QNQualityDownloadInfo::note(const Change& change) {
  const QNResourceDownloadInfo& resource = change.resource;
  const size_t index = resource.index();
  const bool idle = resource.status() == QNDownloadStatusIdle;
  idle_.assign(index, idle && !resource.completed());
  active_.assign(index, !idle);
  withError_.assign(index, resource.failed());
  resourceBytes_ += resource.downloadedBytes() - change.oldBytes;
}

void QNQualityDownloadInfo::assertOwn(const Resource& resource) const {
  assertThat(resource->quality().get() == this, "Resource does not belong to this quality");
}

std::vector<QNQualityDownloadInfo::Resource> QNQualityDownloadInfo::activeResources() const {
  std::vector<Resource> active;
  active.reserve(numActive_);
  for (size_t i = active_.first(); i != QNIndexSet::none; i = active_.next(i + 1))
    active.push_back(resources_[i]);
  return active;
}

QNQualityDownloadInfo::Resource QNQualityDownloadInfo::_nextResource() const {
  const size_t index = idle_.first();
  return index == QNIndexSet::none ? nullptr : resources_[index];
}

void QNQualityDownloadInfo::_activateDownloads() {
  while (numActive_ < window()) {
    const Resource resource = _nextResource();
    if (!resource) return;
    const Change change(resource);
    resource->setAdditionalHeaders(additionalHeaders_);
    if (!resource->activate()) return;  // the same resource would be next for ever
    ++numActive_;
    note(change);
  }
}

void QNQualityDownloadInfo::_enumerateActiveResourcesUsingBlock(
    const std::function<void(const Resource&)>& block) {
  for (size_t i = active_.first(); i != QNIndexSet::none; i = active_.next(i + 1))
    block(resources_[i]);
}

bool QNQualityDownloadInfo::download() {
  _activateDownloads();
  (void)resume();
  _checkInvariants();
  return numRunning_ != 0;
}

void QNQualityDownloadInfo::_pauseResource(const Resource& resource) {
  if (!resource->pause()) return;
  assertThat(numRunning_ > 0, "Underflow in running counter");
  --numRunning_;
}

bool QNQualityDownloadInfo::pause() {
  if (numActive_ == 0 || numRunning_ == 0) return false;
  _enumerateActiveResourcesUsingBlock(
      [this](const Resource& resource) { _pauseResource(resource); });
  assertThat(numActive_ != numRunning_, "Expected active resources to not equal running resources");
  assertThat(numRunning_ == 0, "Expected running resources to be zero");
  _checkInvariants();
  return true;
}

void QNQualityDownloadInfo::_resumeResource(const Resource& resource) {
  if (!resource->resume()) return;
  assertThat(numRunning_ < numActive_, "Overflow in running counter");
  ++numRunning_;
}

bool QNQualityDownloadInfo::resume() {
  if (numActive_ == 0 || numActive_ == numRunning_) return false;
  _enumerateActiveResourcesUsingBlock(
      [this](const Resource& resource) { _resumeResource(resource); });
  assertThat(numActive_ == numRunning_, "Expected active resources to equal running resources");
  assertThat(numRunning_ != 0, "Expected running resources to be non-zero");
  _checkInvariants();
  return true;
}

void QNQualityDownloadInfo::_cancelResource(const Resource& resource) {
  const Change change(resource);
  if (!resource->cancel()) return;
  _updateDownloadedFrom(change.oldBytes, resource->downloadedBytes());
  if (change.wasRunning) {
    assertThat(numRunning_ > 0, "Underflow in running counter");
    --numRunning_;
  }
  assertThat(numActive_ > 0, "Underflow in active counter");
  --numActive_;
  note(change);
}

bool QNQualityDownloadInfo::cancel() {
  if (numActive_ == 0) return false;
  _enumerateActiveResourcesUsingBlock(
      [this](const Resource& resource) { _cancelResource(resource); });
  assertThat(numActive_ == 0, "Expected active resources to be zero");
  assertThat(numRunning_ == 0, "Expected running resources to be zero");
  _checkInvariants();
  return true;
}

bool QNQualityDownloadInfo::resourceCompleteWithError(const Resource& resource,
                                                      const platform::ErrorPtr& error) {
  _checkInvariants();
  assertOwn(resource);
  if (resource->completed()) return false;
  const Change change(resource);
  resource->completeWithError(error);
  _updateDownloadedFrom(change.oldBytes, resource->downloadedBytes());
  if (change.wasRunning) {
    assertThat(numRunning_ > 0, "Underflow in running counter");
    --numRunning_;
  }
  assertThat(numActive_ > 0, "Underflow in active counter");
  --numActive_;
  note(change);

  if (error && _retryResource(resource, error)) {
    if (change.wasRunning) _resumeResource(resource);
    _checkInvariants();
    return false;
  }
  if (error) {
    assertThat(numFailed_ <= numCompleted_, "Overflow in failed resource download counter");
    ++numFailed_;
  }
  countCompleted();
  if (completed_) return true;
  _activateDownloads();
  if (change.wasRunning) (void)resume();
  _checkInvariants();
  return false;
}

void QNQualityDownloadInfo::countCompleted() {
  assertThat(numCompleted_ < resources_.size(), "Overflow in completed resource download counter");
  ++numCompleted_;
  if (numCompleted_ == resources_.size()) completed_ = true;
}

bool QNQualityDownloadInfo::_retryResource(const Resource& resource,
                                           const platform::ErrorPtr& error) {
  if (error->domain() == QNDownloadHTTPErrorDomain && error->code() == kNotFound) return false;
  const Change change(resource);
  resource->setAdditionalHeaders(additionalHeaders_);
  const platform::DataPtr resumeData = resumeDataOf(*error);
  const bool restarted =
      resumeData ? resource->reactivateWithData(resumeData) : resource->reactivate();
  if (restarted) ++numActive_;
  note(change);
  return restarted;
}

void QNQualityDownloadInfo::resourceCompleteWithBytesPreloaded(const Resource& resource,
                                                               int64_t bytes) {
  assertOwn(resource);
  const Change change(resource);
  resource->completeWithBytesPreloaded(bytes);
  _updateExpectedFrom(change.oldExpected, resource->expectedBytes());
  _updateDownloadedFrom(change.oldBytes, resource->downloadedBytes());
  note(change);
  countCompleted();
}

void QNQualityDownloadInfo::resourceForgetFile(const Resource& resource) {
  assertOwn(resource);
  if (!resource->completed() || resource->failed()) return;
  const Change change(resource);
  resource->reset();
  _updateDownloadedFrom(change.oldBytes, resource->downloadedBytes());
  note(change);
  --numCompleted_;
  completed_ = false;
}

void QNQualityDownloadInfo::resourceLoseFile(const Resource& resource,
                                             const platform::ErrorPtr& error) {
  assertOwn(resource);
  if (!resource->completed() || resource->failed()) return;
  const Change change(resource);
  const bool mayStart = resource->loseFile(error, !completed_);
  _updateDownloadedFrom(change.oldBytes, resource->downloadedBytes());
  note(change);
  if (!mayStart) {
    ++numFailed_;
    return;
  }
  --numCompleted_;
  const bool wasRunning = numRunning_ != 0;
  if (numActive_ == 0) return;  // cancelled meanwhile: the next start finds it
  _activateDownloads();
  if (wasRunning) (void)resume();
}

void QNQualityDownloadInfo::resourceBytesDownloadedBytesExpected(const Resource& resource,
                                                                 int64_t downloaded,
                                                                 int64_t expected) {
  assertOwn(resource);
  const Change change(resource);
  resource->bytesDownloaded(downloaded, expected);
  _updateExpectedFrom(change.oldExpected, resource->expectedBytes());
  _updateDownloadedFrom(change.oldBytes, resource->downloadedBytes());
  note(change);
}

bool QNQualityDownloadInfo::reattachResource(const QNResourceId& id, const Task& task) {
  if (id.resourceIndex() >= resources_.size()) return false;
  const Resource& resource = resources_[id.resourceIndex()];
  const Change change(resource);
  if (!resource->reattachWithStatus(static_cast<QNDownloadStatus>(id.status()), task)) return false;
  ++numActive_;
  if (resource->status() == QNDownloadStatusRunning) ++numRunning_;
  _updateExpectedFrom(change.oldExpected, resource->expectedBytes());
  _updateDownloadedFrom(change.oldBytes, resource->downloadedBytes());
  note(change);
  _checkInvariants();
  return true;
}

bool QNQualityDownloadInfo::clear() {
  assertThat(status() == QNDownloadStatusIdle, "Expected quality status to be IDLE");
  bool any = false;
  for (size_t i = withError_.first(); i != QNIndexSet::none; i = withError_.next(i + 1)) {
    const Resource& resource = resources_[i];
    const Change change(resource);
    // One that was cancelled while it was being tried again carries its last error, but counts
    // neither as completed nor as failed.
    const bool counted = resource->completed();
    if (!resource->clear()) continue;
    any = true;
    if (counted) {
      --numFailed_;
      --numCompleted_;
    }
    note(change);
  }
  if (any) completed_ = false;
  _checkInvariants();
  return any;
}

void QNQualityDownloadInfo::reset() {
  completed_ = false;
  numCompleted_ = 0;
  numFailed_ = 0;
  for (const Resource& resource : resources_) {
    const Change change(resource);
    resource->reset();
    note(change);
  }
  _checkInvariants();
}

void QNQualityDownloadInfo::_checkInvariants() const {
#ifndef NDEBUG
  if (resources_.size() > kRecountedResources) return;
  size_t sized = 0, estimated = 0, active = 0, running = 0, completed = 0, failed = 0;
  int64_t sum = 0, bytes = 0;
  for (const Resource& resource : resources_) {
    const QNDownloadSize expected = resource->expectedBytes();
    const bool isSized = !QNDownloadSizeIsUnknown(expected);
    const bool isIdle = resource->status() == QNDownloadStatusIdle;
    sized += isSized;
    estimated += isSized && expected.estimated;
    if (isSized) sum = QNSumOfSizes(sum, expected.value);
    active += !isIdle;
    running += resource->status() == QNDownloadStatusRunning;
    completed += resource->completed();
    failed += resource->completed() && resource->failed();
    bytes += resource->downloadedBytes();
    const size_t i = resource->index();
    assertThat(isIdle == (resource->downloadTask() == nullptr), "Recount: a task without status");
    assertThat(idle_.contains(i) == (isIdle && !resource->completed()), "Recount: idle resources");
    assertThat(active_.contains(i) == !isIdle, "Recount: active resources");
    assertThat(withError_.contains(i) == resource->failed(), "Recount: resources with an error");
  }
  assertThat(sized == numSized_, "Recount: sized resources");
  assertThat(estimated == numEstimated_, "Recount: estimated resources");
  assertThat(sized == 0 || sum == sizedBytes_.value, "Recount: sized bytes");
  assertThat(active == numActive_, "Recount: active resources counter");
  assertThat(running == numRunning_, "Recount: running resources");
  assertThat(completed == numCompleted_, "Recount: completed resources");
  assertThat(failed == numFailed_, "Recount: failed resources");
  assertThat(bytes == resourceBytes_, "Recount: bytes of the resources");
  assertThat(completed_ == (!resources_.empty() && completed == resources_.size()),
             "Recount: the quality is completed");
#endif
}
