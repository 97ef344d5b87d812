#include "engine/QNResourceDownloadInfo.h"

#include <algorithm>
#include <utility>

#include "engine/QNMovieDownloadSet.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceId.h"
#include "engine/QNResourcePath.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"

// What the resources of one list share, and the memory that they lie in. Resources are handed out
// as references into it, so it lives as long as one of them is held.
struct QNResourceBlock : std::enable_shared_from_this<QNResourceBlock> {
  using List = std::vector<std::shared_ptr<QNRangedURL>>;

  QNResourceBlock(std::shared_ptr<const List> resources, size_t firstIndex,
                  std::shared_ptr<const std::string> downloadPath,
                  const std::shared_ptr<QNQualityDownloadInfo>& quality,
                  const std::shared_ptr<QNSessionController>& controller)
      : resources(std::move(resources)),
        firstIndex(firstIndex),
        downloadPath(std::move(downloadPath)),
        quality(quality),
        controller(controller) {}

  ~QNResourceBlock() {
    std::destroy_n(memory, constructed);
    if (memory) std::allocator<QNResourceDownloadInfo>().deallocate(memory, resources->size());
  }

  void construct(QNDownloadSize expectedSize) {
    if (resources->empty()) return;
    memory = std::allocator<QNResourceDownloadInfo>().allocate(resources->size());
    for (; constructed < resources->size(); ++constructed) {
      new (memory + constructed)
          QNResourceDownloadInfo(*this, firstIndex + constructed, expectedSize);
    }
  }

  std::shared_ptr<QNResourceDownloadInfo> at(size_t position) {
    return {shared_from_this(), memory + position};
  }

  const std::shared_ptr<const List> resources;
  const size_t firstIndex;  // the index of the first entry
  const std::shared_ptr<const std::string> downloadPath;
  const std::weak_ptr<QNQualityDownloadInfo> quality;
  const std::weak_ptr<QNSessionController> controller;
  QNResourceDownloadInfo* memory = nullptr;
  size_t constructed = 0;
};

std::shared_ptr<QNResourceDownloadInfo> QNResourceDownloadInfo::infoWithResource(
    const std::shared_ptr<QNRangedURL>& resource, const std::string& downloadPath,
    const std::shared_ptr<QNQualityDownloadInfo>& quality, size_t index,
    QNDownloadSize expectedSize, const std::shared_ptr<QNSessionController>& controller) {
  auto list = std::make_shared<const QNResourceBlock::List>(1, resource);
  auto block = std::make_shared<QNResourceBlock>(std::move(list), index,
                                                 std::make_shared<const std::string>(downloadPath),
                                                 quality, controller);
  block->construct(expectedSize);
  return block->at(0);
}

std::vector<std::shared_ptr<QNResourceDownloadInfo>> QNResourceDownloadInfo::infosWithResources(
    std::shared_ptr<const std::vector<std::shared_ptr<QNRangedURL>>> resources,
    std::shared_ptr<const std::string> downloadPath,
    const std::shared_ptr<QNQualityDownloadInfo>& quality, QNDownloadSize expectedSize,
    const std::shared_ptr<QNSessionController>& controller) {
  const size_t count = resources->size();
  auto block = std::make_shared<QNResourceBlock>(std::move(resources), 0, std::move(downloadPath),
                                                 quality, controller);
  block->construct(expectedSize);
  std::vector<std::shared_ptr<QNResourceDownloadInfo>> infos;
  infos.reserve(count);
  for (size_t i = 0; i < count; ++i)
    infos.emplace_back(block, block->memory + i);
  return infos;
}

QNResourceDownloadInfo::QNResourceDownloadInfo(QNResourceBlock& block, size_t index,
                                               QNDownloadSize expectedSize)
    : block_(block), index_(index), expectedBytes_(expectedSize) {
  platform::assertThat(platform::URLSessionTransferSizeUnknown == QNDownloadSizeUnknownValue,
                       "Mismatch in unknown size constants");
  const uint64_t length = resource()->length();
  if (length != 0) expectedBytes_ = QNMakeDownloadSize(static_cast<int64_t>(length), false);
}

QNResourceDownloadInfo::~QNResourceDownloadInfo() = default;

const std::shared_ptr<QNRangedURL>& QNResourceDownloadInfo::resource() const {
  return (*block_.resources)[index_ - block_.firstIndex];
}

std::string QNResourceDownloadInfo::relativeResourcePath() const {
  return QNRelativeResourcePath(resource()->referenceURL());
}

std::string QNResourceDownloadInfo::resourcePath() const {
  return platform::FileManager::pathByAppending(*block_.downloadPath, relativeResourcePath());
}

std::shared_ptr<QNQualityDownloadInfo> QNResourceDownloadInfo::quality() const {
  return block_.quality.lock();
}

std::shared_ptr<QNSessionController> QNResourceDownloadInfo::controller() const {
  return block_.controller.lock();
}

QNResourceDownloadInfo::Task QNResourceDownloadInfo::downloadTask() const {
  return std::atomic_load(&downloadTask_);
}

QNDownloadProgress QNResourceDownloadInfo::progress() const {
  return QNDownloadProgressCompute(downloadedBytes_, expectedBytes_);
}

bool QNResourceDownloadInfo::activate() {
  const auto controller = requiredController();
  if (status_ != QNDownloadStatusIdle || completed_) return false;
  const auto request = requestOfItsOwn();
  if (additionalHeaders_ && mayCarryHeaders(*request)) {
    for (const auto& [name, value] : *additionalHeaders_)
      request->setValueForHTTPHeaderField(value, name);
  }
  return activateWithTask(controller->downloadSession()->downloadTaskWithRequest(request));
}

bool QNResourceDownloadInfo::activateWithTask(const Task& task) {
  const auto controller = requiredController();
  if (status_ != QNDownloadStatusIdle || completed_ || !task) return false;
  std::atomic_store(&downloadTask_, task);
  status_ = QNDownloadStatusPaused;
  writeDescription();
  controller->resourceAttachTask(self(), task);
  return true;
}

bool QNResourceDownloadInfo::reactivateReset() {
  if (reactivations_ >= maxReactivations_) return false;
  completed_ = false;
  ++reactivations_;
  downloadedBytes_ = 0;
  return true;
}

bool QNResourceDownloadInfo::reactivate() {
  return reactivateReset() && activate();
}

bool QNResourceDownloadInfo::reactivateWithData(const platform::DataPtr& resumeData) {
  if (!reactivateReset()) return false;
  const auto session = requiredController()->downloadSession();
  return activateWithTask(session->downloadTaskWithResumeData(resumeData));
}

bool QNResourceDownloadInfo::reattachWithStatus(QNDownloadStatus status, const Task& task) {
  // A completed resource has its file; bytes of a left-over task must not replace it.
  if (downloadTask_ || completed_ || task->state() == platform::URLSessionTaskState::Canceling)
    return false;
  std::atomic_store(&downloadTask_, task);
  status_ = status;
  if (task->countOfBytesExpectedToReceive() != platform::URLSessionTransferSizeUnknown)
    expectedBytes_ = QNMakeDownloadSize(task->countOfBytesExpectedToReceive(), false);
  downloadedBytes_ = task->countOfBytesReceived();
  if (const auto owner = controller()) owner->resourceAttachTask(self(), task);
  // The earlier launch may have ended between moving the task and writing its description.
  if (status == QNDownloadStatusRunning) {
    task->resume();
  } else {
    task->suspend();
  }
  return true;
}

bool QNResourceDownloadInfo::pause() {
  if (status_ != QNDownloadStatusRunning) return false;
  downloadTask_->suspend();
  status_ = QNDownloadStatusPaused;
  writeDescription();
  return true;
}

bool QNResourceDownloadInfo::resume() {
  if (status_ != QNDownloadStatusPaused) return false;
  downloadTask_->resume();
  status_ = QNDownloadStatusRunning;
  writeDescription();
  return true;
}

bool QNResourceDownloadInfo::cancel() {
  if (status_ == QNDownloadStatusIdle) return false;
  const Task task = downloadTask_;
  task->cancel();
  if (const auto owner = controller()) owner->resourceDetachTask(self(), task);
  task->setTaskDescription(std::nullopt);
  std::atomic_store(&downloadTask_, Task());
  status_ = QNDownloadStatusIdle;
  downloadedBytes_ = 0;
  return true;
}

void QNResourceDownloadInfo::completeWithError(const platform::ErrorPtr& error) {
  platform::assertThat(status_ != QNDownloadStatusIdle, "Expected resource status to not be IDLE");
  const Task task = downloadTask_;
  if (const auto owner = controller()) owner->resourceDetachTask(self(), task);
  task->cancel();
  task->setTaskDescription(std::nullopt);
  std::atomic_store(&downloadTask_, Task());
  status_ = QNDownloadStatusIdle;
  completed_ = true;
  error_ = error;
  if (error_) downloadedBytes_ = 0;
}

void QNResourceDownloadInfo::completeWithBytesPreloaded(int64_t bytes) {
  platform::assertThat(status_ == QNDownloadStatusIdle, "Expected resource status to be IDLE");
  platform::assertThat(bytes != QNDownloadSizeUnknownValue, "Bad value for preloaded bytes");
  expectedBytes_ = QNMakeDownloadSize(bytes, false);
  downloadedBytes_ = bytes;
  completed_ = true;
  error_ = nullptr;
}

void QNResourceDownloadInfo::bytesDownloaded(int64_t downloaded, int64_t expected) {
  if (expected != QNDownloadSizeUnknownValue) expectedBytes_ = QNMakeDownloadSize(expected, false);
  downloadedBytes_ = downloaded;
}

bool QNResourceDownloadInfo::clear() {
  platform::assertThat(status_ == QNDownloadStatusIdle, "Expected resource status to be IDLE");
  if (!error_) return false;
  completed_ = false;
  error_ = nullptr;
  reactivations_ = 0;
  downloadedBytes_ = 0;
  return true;
}

void QNResourceDownloadInfo::reset() {
  platform::assertThat(status_ == QNDownloadStatusIdle, "Expected resource status to be IDLE");
  std::atomic_store(&downloadTask_, Task());
  status_ = QNDownloadStatusIdle;
  completed_ = false;
  error_ = nullptr;
  reactivations_ = 0;
  downloadedBytes_ = 0;
}

bool QNResourceDownloadInfo::loseFile(const platform::ErrorPtr& error, bool mayRetry) {
  platform::assertThat(status_ == QNDownloadStatusIdle, "Expected resource status to be IDLE");
  downloadedBytes_ = 0;
  if (mayRetry && reactivateReset()) return true;
  error_ = error;
  return false;
}

platform::ErrorPtr QNResourceDownloadInfo::placeError() const {
  const auto owner = quality();
  const auto set = owner ? owner->set() : nullptr;
  return set ? set->errorForPlace(*this) : nullptr;
}

bool QNResourceDownloadInfo::matchesRequest(const platform::URLRequest& request) const {
  const auto own = requestOfItsOwn();
  const auto textOf = [](const platform::URLRequest& r) {
    return r.url() ? r.url()->absoluteString() : std::string();
  };
  return textOf(*own) == textOf(request) &&
         own->valueForHTTPHeaderField("Range") == request.valueForHTTPHeaderField("Range");
}

std::shared_ptr<QNResourceDownloadInfo> QNResourceDownloadInfo::self() {
  return block_.at(index_ - block_.firstIndex);
}

std::shared_ptr<QNSessionController> QNResourceDownloadInfo::requiredController() const {
  auto owner = controller();
  platform::assertThat(owner != nullptr, "Controller is required to be non-null");
  return owner;
}

// A resource without a place is requested from nowhere: its task fails like any other, so that
// whoever starts it has something to wait for.
std::shared_ptr<platform::URLRequest> QNResourceDownloadInfo::requestOfItsOwn() const {
  auto request = resource()->prepareRequest();
  if (placeError()) request->setURL(nullptr);
  return request;
}

bool QNResourceDownloadInfo::mayCarryHeaders(const platform::URLRequest& request) const {
  const auto owner = quality();
  const auto set = owner ? owner->set() : nullptr;
  return !set || !request.url() || set->sendsHeadersTo(*request.url());
}

void QNResourceDownloadInfo::writeDescription() {
  downloadTask_->setTaskDescription(QNResourceId::resourceIdWithResource(*this)->serializeToJSON());
}
