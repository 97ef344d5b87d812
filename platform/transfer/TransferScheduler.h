#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/NetworkMonitor.h"
#include "platform/transfer/Download.h"
#include "platform/transfer/FileFlusher.h"
#include "platform/transfer/RateLimiter.h"
#include "platform/transfer/RetryPolicy.h"
#include "platform/transfer/TransferClock.h"
#include "platform/transfer/TransferLedger.h"
#include "platform/transfer/TransferOptions.h"

namespace platform {

class CurlLoop;

// Decides which task transfers when: limits, retries, time-outs, waiting for network and room.
// Belongs to the thread that runs the engine's loop; what is to be known after a kill goes to the
// ledger.
class TransferScheduler final : public Download::Owner {
 public:
  // Bytes go to the disk after so many, or less often; what is not there is lost with the power.
  static constexpr int64_t kFlushBytes = 16 << 20;
  static constexpr int64_t kFlushIntervalMs = 10'000;
  static constexpr int64_t kFlushMinimum = 256 << 10;

  TransferScheduler(TransferLedger& ledger, CurlLoop& loop, TransferClock& clock,
                    const TransferOptions& options);
  ~TransferScheduler() override;

  // The application's wish for a task may have changed.
  void taskChanged(TransferTaskId id);
  void setNetwork(const NetworkStatus& status);
  // Also those that were told.
  void tellWaitsAgain();
  // After each round of network events: takes stock and starts what may start.
  void endRound();
  // When endRound() has something to do although nothing happens; kNeverMs: not at all.
  int64_t nextDeadlineMs() const;
  std::vector<TransferEvent> takeEvents();
  // Ends all attempts, keeping what is there.
  void stop();
  // The same without waiting for the disk, after something was thrown; tasks that are to go on have
  // to be named again.
  void startOver();

 private:
  enum class State {
    Queued,  // for a place among the transfers
    Active,
    Graced,    // suspended a moment ago, with its connection
    Retrying,  // at untilMs
    DiskFull,  // looks again at untilMs
    Flushing,  // whole, while a flush of its file is under way
  };

  struct Host {
    HostHealth health;
    std::deque<TransferTaskId> queue;
    // Tasks behind a long queue: they have no jobs yet. All wait for the same.
    std::set<TransferTaskId> backlog;
    std::vector<TransferTaskId> newInBacklog;
    URLSessionTaskWait toldBacklog = URLSessionTaskWait::None;
    int active = 0;
    int jobs = 0;
  };

  struct Job {
    TransferTaskId id = 0;
    URLRequestPtr request;
    TransferContent content;  // while no download has it
    TransferEffort effort;
    State state = State::Queued;
    Host* host = nullptr;
    std::string hostName;
    std::unique_ptr<Download> download;
    StallClock clock;
    bool trying = false;
    bool connected = false;
    int64_t activeAtMs = 0;
    int64_t furthestBefore = 0;  // effort.furthest when the attempt began
    int64_t untilMs = 0;         // for Graced, Retrying and DiskFull: the next step
    int64_t diskFullSinceMs = -1;
    int64_t retryDelayMs = -1;  // of a response that is retried
    bool holdHost = false;
    int responsesSeen = 0;  // of the download
    uint64_t responseNumber = 0;
    int64_t responseAtMs = 0;
    int64_t base = 0;
    bool contentStored = false;
    bool reportDirty = false;
    bool throttled = false;               // paused by the rate limit
    std::optional<uint64_t> contentHash;  // of the download that found the content whole
    int64_t flushAsked = 0;               // bytes that were sent to the disk
    int64_t flushAtMs = 0;                // when
    int failedFlushes = 0;                // in a row
    URLSessionTaskWait toldWait = URLSessionTaskWait::None;
  };

  void downloadDidConnect(Download& download) override;
  void downloadDidReceive(Download& download) override;
  void downloadDidRead(Download& download, int64_t count) override;
  bool downloadShouldRetryStatus(Download& download, const HTTPHeaders& headers) override;
  void downloadDidEnd(Download& download) override;

  Job* find(TransferTaskId id);
  template <class Step>
  void guarded(TransferTaskId id, const Step& step);
  void takeThrown();
  Job& addJob(TransferTaskId id, std::string hostName, TransferLedger::Unfinished&& task);
  void begin(TransferTaskId id, std::string hostName, TransferLedger::Unfinished&& task);
  bool enterBacklog(TransferTaskId id, const std::string& hostName);
  void leaveBacklog(TransferTaskId id);
  void refill(Host& host);
  void tellBacklog(Host& host);
  void removeJob(Job& job);
  void suspend(Job& job);
  void park(Job& job);
  void enqueue(Job& job, bool first = false);
  void leaveQueue(Job& job);
  void startQueued();
  bool startNextOf(Host& host);
  void startDownload(Job& job);
  void leaveActive(Job& job);
  void setTrying(Job& job, bool trying);
  void stopDownload(Job& job);

  void releaseThrottled();
  void considerFlush(Job& job, int64_t bytes);
  void takeFlushed();
  void takeFailedFlush(const FileFlusher::Flushed& flushed);
  void endWhole(Job& job);
  void takeDiskError(Job& job, int error);
  static TransferContent& contentOf(Job& job);

  void takeTouched();
  void takeTouched(Job& job);
  void takeEnded();
  void takeEnd(Job& job);
  void askOn(Job& job);
  void retry(Job& job, int64_t delayMs, bool holdHost);
  std::optional<int64_t> retryDelay(Job& job, std::optional<int64_t> askedSeconds);
  void waitForRoom(Job& job);
  void checkRoom(Job& job);
  void runTimer(Job& job);
  void endJob(Job& job, const ErrorPtr& error, bool resumable,
              std::optional<uint64_t> contentHash = std::nullopt);
  void failJob(Job& job, const HttpOutcome& outcome, int64_t status);
  void noteResponse(Job& job);
  void commitEndings();

  void runTimers();
  void checkTimeouts();
  void report();
  void wakeLater(int64_t atMs) { nextTimerMs_ = std::min(nextTimerMs_, atMs); }
  void tellWait(Job& job, URLSessionTaskWait wait, int64_t untilMs = 0,
                const std::string& detail = {});
  void tellQueued();
  URLSessionTaskWait networkWait() const;
  void tellOthers();
  int64_t now() const { return clock_.nowMs(); }
  double random() { return std::uniform_real_distribution<>(0, 1)(random_); }

  TransferLedger& ledger_;
  CurlLoop& loop_;
  TransferClock& clock_;
  const TransferOptions options_;
  std::unordered_map<TransferTaskId, std::unique_ptr<Job>> jobs_;
  std::map<std::string, std::unique_ptr<Host>> hosts_;
  NetworkStatus network_;
  bool othersKnowThatTasksWait_ = false;
  int active_ = 0;
  uint64_t lastResponse_ = 0;
  std::vector<TransferTaskId> touched_;
  std::vector<TransferTaskId> ended_;
  std::vector<std::pair<TransferTaskId, std::string>> thrown_;  // by a step of the task's, and what
  std::vector<TransferTaskId> unreported_;
  std::vector<TransferTaskId> newlyQueued_;
  bool tellAllQueued_ = false;
  std::vector<TransferLedger::Ending> endings_;
  std::unordered_map<TransferTaskId, std::pair<uint64_t, int64_t>> endedResponses_;
  std::vector<TransferEvent> events_;
  int64_t nextReportMs_ = 0;  // no report before
  int64_t nextTimeoutMs_ = kNeverMs;
  int64_t nextTimerMs_ = kNeverMs;  // of Graced, Retrying, DiskFull and held hosts
  RateLimiter limiter_;
  std::deque<TransferTaskId> throttled_;
  int64_t nextReleaseMs_ = kNeverMs;
  FileFlusher flusher_;
  std::vector<TransferTaskId> flushing_;  // in that state
  std::mt19937_64 random_;
};

}  // namespace platform
