#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/QNDownloadStats.h"
#include "engine/QNSessionController.h"
#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/URLSession.h"
#include "playlist/QNRangedURL.h"

class QNQualityDownloadInfo;
struct QNResourceBlock;

// The download state of one resource: a segment file or a byte range of one. Owns at most one task,
// counts its bytes, keeps the error of the last attempt and bounds how often it is started again.
// When to do any of that is decided by its quality download. No lock of its own: all methods are
// for the holder of the set's lock, except `downloadTask` and what is constant after construction.
// Operations in a wrong state return false and do nothing.
//
// A film has many: the resources of a quality lie in one block, which lives as long as one of them
// is held, and paths are derived when asked for.
class QN_EXPORT QNResourceDownloadInfo final : public QNDownloadStats {
 public:
  using Task = std::shared_ptr<platform::URLSessionDownloadTask>;

  // `quality` and `controller` are held weakly. `expectedSize` is a fallback: a resource with a
  // stated length expects exactly that.
  static std::shared_ptr<QNResourceDownloadInfo> infoWithResource(
      const std::shared_ptr<QNRangedURL>& resource, const std::string& downloadPath,
      const std::shared_ptr<QNQualityDownloadInfo>& quality, size_t index,
      QNDownloadSize expectedSize, const std::shared_ptr<QNSessionController>& controller);
  // The resources of a whole list, index i for entry i.
  static std::vector<std::shared_ptr<QNResourceDownloadInfo>> infosWithResources(
      std::shared_ptr<const std::vector<std::shared_ptr<QNRangedURL>>> resources,
      std::shared_ptr<const std::string> downloadPath,
      const std::shared_ptr<QNQualityDownloadInfo>& quality, QNDownloadSize expectedSize,
      const std::shared_ptr<QNSessionController>& controller);

  QNResourceDownloadInfo(const QNResourceDownloadInfo&) = delete;
  QNResourceDownloadInfo& operator=(const QNResourceDownloadInfo&) = delete;
  ~QNResourceDownloadInfo() override;

  // Constant after construction.
  const std::shared_ptr<QNRangedURL>& resource() const;
  std::string relativeResourcePath() const;  // the reference, made safe (QNResourcePath.h)
  std::string resourcePath() const;          // below the download directory
  size_t index() const { return index_; }
  std::shared_ptr<QNQualityDownloadInfo> quality() const;   // null when it is gone
  std::shared_ptr<QNSessionController> controller() const;  // null when it is gone

  const QNHeadersPtr& additionalHeaders() const { return additionalHeaders_; }
  // Added to the request of the next task, replacing headers of the same name, when the set sends
  // them where the request goes (QNMovieDownloadSet::sendsHeadersTo).
  void setAdditionalHeaders(QNHeadersPtr headers) { additionalHeaders_ = std::move(headers); }
  // Null when idle. May be read on any thread.
  Task downloadTask() const;
  QNDownloadStatus status() const { return status_; }         // idle exactly when there is no task
  bool completed() const { return completed_; }               // successfully or not
  const platform::ErrorPtr& error() const { return error_; }  // of the last completion
  bool failed() const { return error_ != nullptr; }
  uint32_t maxReactivations() const { return maxReactivations_; }  // 4 after construction
  void setMaxReactivations(uint32_t count) { maxReactivations_ = count; }
  uint32_t reactivations() const { return reactivations_; }

  QNDownloadSize expectedBytes() const override { return expectedBytes_; }
  int64_t downloadedBytes() const override { return downloadedBytes_; }
  QNDownloadProgress progress() const override;

  // Starting: a new task, attached and suspended (status paused). A resource that has no place to
  // be stored at, or that is no http or https URL, gets a task that fails asynchronously. Asserts
  // that the controller is there ("Controller is required to be non-null").
  [[nodiscard]] bool activate();
  [[nodiscard]] bool activateWithTask(const Task& task);
  // Consumes one of `maxReactivations`; false when they are spent. The error of the last attempt
  // stays until the next completion.
  [[nodiscard]] bool reactivateReset();
  [[nodiscard]] bool reactivate();
  // The headers are not applied: the task carries on with its original request.
  [[nodiscard]] bool reactivateWithData(const platform::DataPtr& resumeData);
  // A task that an earlier launch made; it is brought to `status` (paused or running). False for a
  // resource that has a task or is completed, and for a task that is being cancelled.
  [[nodiscard]] bool reattachWithStatus(QNDownloadStatus status, const Task& task);

  [[nodiscard]] bool pause();
  [[nodiscard]] bool resume();
  [[nodiscard]] bool cancel();

  // Asserts "Expected resource status to not be IDLE". Null: success; the bytes stay as last
  // reported. A failed resource counts no bytes.
  void completeWithError(const platform::ErrorPtr& error);
  // Its file is on disk already. Asserts "Expected resource status to be IDLE" and "Bad value for
  // preloaded bytes".
  void completeWithBytesPreloaded(int64_t bytes);
  // `expected` -1 keeps the earlier expectation.
  void bytesDownloaded(int64_t downloaded, int64_t expected);

  // Forgets a failure; false when there was none. Both assert "Expected resource status to be
  // IDLE".
  [[nodiscard]] bool clear();
  // Forgets everything except the expected size.
  void reset();
  // Own addition: the file of a resource that completed could not be kept. It may be started again
  // when `mayRetry` and its budget allow that (true), and has failed with the error otherwise.
  [[nodiscard]] bool loseFile(const platform::ErrorPtr& error, bool mayRetry);

  // Own additions.
  // Why nothing can be stored for this resource (QNResourcePath.h), null when there is a place.
  platform::ErrorPtr placeError() const;
  // Whether a task with this original request (URL and range) is one for this resource.
  bool matchesRequest(const platform::URLRequest& request) const;

 private:
  friend struct QNResourceBlock;
  QNResourceDownloadInfo(QNResourceBlock& block, size_t index, QNDownloadSize expectedSize);

  std::shared_ptr<QNResourceDownloadInfo> self();
  std::shared_ptr<QNSessionController> requiredController() const;
  std::shared_ptr<platform::URLRequest> requestOfItsOwn() const;
  bool mayCarryHeaders(const platform::URLRequest& request) const;
  void writeDescription();

  QNResourceBlock& block_;
  size_t index_;
  Task downloadTask_;  // written under the set's lock, with atomic stores
  platform::ErrorPtr error_;
  QNHeadersPtr additionalHeaders_;
  int64_t downloadedBytes_ = 0;
  QNDownloadSize expectedBytes_;
  QNDownloadStatus status_ = QNDownloadStatusIdle;
  uint32_t maxReactivations_ = 4;
  uint32_t reactivations_ = 0;
  bool completed_ = false;
};
