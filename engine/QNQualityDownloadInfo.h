#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/QNDownloadStats.h"
#include "engine/QNIndexSet.h"
#include "engine/QNSessionController.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/URLSession.h"

class QNMovieDownloadSet;
class QNQuality;
class QNResourceDownloadInfo;
class QNResourceId;

// Downloads the resources of one quality: at most `parallellDownloads` at a time, in list order,
// failed ones again within their budget. Rolls their sizes and bytes up by differences and tells
// its set when the last one completed. No lock of its own: all methods are for the holder of the
// set's lock, except what is constant after construction. Nothing here walks the resource list,
// except construction and `reset`.
//
// The set owns its qualities and is known here weakly: a strong reference back would keep both for
// ever.
class QN_EXPORT QNQualityDownloadInfo final
    : public QNDownloadStats,
      public std::enable_shared_from_this<QNQualityDownloadInfo> {
 public:
  using Resource = std::shared_ptr<QNResourceDownloadInfo>;
  using Task = std::shared_ptr<platform::URLSessionDownloadTask>;

  // Asks the quality's resource builder for the list and throws what that throws.
  static std::shared_ptr<QNQualityDownloadInfo> infoWithBaseURL(
      const std::string& baseURL, const std::string& downloadPath,
      std::shared_ptr<QNQuality> quality, const std::shared_ptr<QNMovieDownloadSet>& set,
      const std::shared_ptr<QNSessionController>& controller);

  QNQualityDownloadInfo(const QNQualityDownloadInfo&) = delete;
  QNQualityDownloadInfo& operator=(const QNQualityDownloadInfo&) = delete;
  ~QNQualityDownloadInfo() override;

  // Constant after construction.
  const std::vector<Resource>& resources() const { return resources_; }  // entry i has index i
  const std::shared_ptr<const std::string>& sharedDownloadPath() const { return downloadPath_; }
  const std::string& downloadPath() const { return *downloadPath_; }
  const std::shared_ptr<QNQuality>& quality() const { return quality_; }
  std::shared_ptr<QNMovieDownloadSet> set() const { return set_.lock(); }  // null when it is gone

  // Counts of resources: expected size known; of those estimated; with a task; of those resumed;
  // completed in either way; of those failed for good.
  size_t numSized() const { return numSized_; }
  size_t numEstimated() const { return numEstimated_; }
  size_t numActive() const { return numActive_; }
  size_t numRunning() const { return numRunning_; }
  size_t numCompleted() const { return numCompleted_; }
  size_t numFailed() const { return numFailed_; }
  // Sum of the known expected sizes. A fresh quality reports it as estimated, also when every size
  // is stated, until the last estimate has been replaced by a report.
  QNDownloadSize sizedBytes() const { return sizedBytes_; }
  bool completed() const { return completed_; }
  bool failed() const { return completed_ && numFailed_ != 0; }
  QNDownloadStatus status() const;
  // Null unless resources failed, else QNDownloadErrorDomain QNQualityDownloadError.
  platform::ErrorPtr error() const;

  const QNHeadersPtr& additionalHeaders() const { return additionalHeaders_; }
  void setAdditionalHeaders(QNHeadersPtr headers) { additionalHeaders_ = std::move(headers); }
  // 4 after construction, and again with each start of the set; 0 counts as 1.
  size_t parallellDownloads() const { return parallellDownloads_; }
  void setParallellDownloads(size_t count) { parallellDownloads_ = count; }

  // Unknown while fewer than two sizes are known; extrapolated while not all are.
  QNDownloadSize expectedBytes() const override { return _expectedBytes(); }
  // Moves by differences only: `reset` keeps it, so that it may exceed the sum over the resources.
  int64_t downloadedBytes() const override { return downloadedBytes_; }
  QNDownloadProgress progress() const override;

  // Fills the window and resumes; whether anything runs afterwards.
  [[nodiscard]] bool download();
  [[nodiscard]] bool pause();   // false when nothing runs
  [[nodiscard]] bool resume();  // false when nothing waits
  [[nodiscard]] bool cancel();  // false when nothing is active
  // Makes failed resources startable again; false when there is none. Asserts "Expected quality
  // status to be IDLE".
  [[nodiscard]] bool clear();
  // Forgets every resource's progress. The quality must be idle.
  void reset();

  // False when the index is out of range or the resource refuses.
  [[nodiscard]] bool reattachResource(const QNResourceId& id, const Task& task);
  // True exactly when this completed the quality. A resource may be started again instead. Asserts
  // "Resource does not belong to this quality".
  [[nodiscard]] bool resourceCompleteWithError(const Resource& resource,
                                               const platform::ErrorPtr& error);
  void resourceCompleteWithBytesPreloaded(const Resource& resource, int64_t bytes);
  // Own addition: the file of a completed resource is gone. The quality must be idle.
  void resourceForgetFile(const Resource& resource);
  // Own addition: the file of a completed resource could not be kept. While the quality is active
  // the resource is fetched again, as after any failure; a quality that completed has failed.
  void resourceLoseFile(const Resource& resource, const platform::ErrorPtr& error);
  void resourceBytesDownloadedBytesExpected(const Resource& resource, int64_t downloaded,
                                            int64_t expected);

  // Own additions.
  // The sum of the resources' downloaded bytes, true at any time.
  int64_t resourceBytes() const { return resourceBytes_; }
  // What is active at the moment, in list order.
  std::vector<Resource> activeResources() const;
  // Recounts what the counters promise (debug builds, lists that are not long).
  void _checkInvariants() const;

 private:
  struct Change;

  QNQualityDownloadInfo(std::shared_ptr<const std::string> downloadPath,
                        std::shared_ptr<QNQuality> quality, std::weak_ptr<QNMovieDownloadSet> set);
  void construct(const std::string& baseURL,
                 const std::shared_ptr<QNSessionController>& controller);
  QNDownloadSize fallbackSize(size_t resourceCount) const;
  void assertOwn(const Resource& resource) const;
  void note(const Change& change);
  void countCompleted();
  size_t window() const { return parallellDownloads_ == 0 ? 1 : parallellDownloads_; }

  Resource _nextResource() const;
  void _activateDownloads();
  void _enumerateActiveResourcesUsingBlock(const std::function<void(const Resource&)>& block);
  [[nodiscard]] bool _retryResource(const Resource& resource, const platform::ErrorPtr& error);
  void _pauseResource(const Resource& resource);
  void _resumeResource(const Resource& resource);
  void _cancelResource(const Resource& resource);
  void _updateExpectedFrom(QNDownloadSize oldSize, QNDownloadSize newSize);
  void _updateDownloadedFrom(int64_t oldBytes, int64_t newBytes);
  QNDownloadSize _expectedBytes() const;

  // Constant after construction.
  std::vector<Resource> resources_;
  const std::shared_ptr<const std::string> downloadPath_;
  const std::shared_ptr<QNQuality> quality_;
  const std::weak_ptr<QNMovieDownloadSet> set_;

  // Guarded by the set's lock.
  size_t numSized_ = 0;
  size_t numEstimated_ = 0;
  size_t numActive_ = 0;
  size_t numRunning_ = 0;
  size_t numCompleted_ = 0;
  size_t numFailed_ = 0;
  QNDownloadSize sizedBytes_ = QNDownloadSizeZero;
  bool completed_ = false;
  QNHeadersPtr additionalHeaders_;
  size_t parallellDownloads_ = 4;
  int64_t downloadedBytes_ = 0;
  int64_t resourceBytes_ = 0;
  // Which resources are idle and not completed, have a task, carry an error.
  QNIndexSet idle_;
  QNIndexSet active_;
  QNIndexSet withError_;
};
