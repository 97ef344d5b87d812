#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "platform/Mutex.h"
#include "platform/NetworkMonitor.h"
#include "platform/transfer/LoopShift.h"
#include "platform/transfer/TransferBackend.h"
#include "platform/transfer/TransferClock.h"
#include "platform/transfer/TransferLedger.h"
#include "platform/transfer/TransferOptions.h"

namespace platform {

class CurlLoop;
class TransferScheduler;

// Transfers the tasks of one store with one curl_multi, on a thread of its own or on the one that a
// front lends it. It knows nothing of the objects that an application holds, so that it serves a
// front in its own process or one behind a socket alike.
class TransferEngine final : public TransferBackend {
 public:
  // Opens the store; throws as TransferStore does. Without options: those that the store remembers.
  TransferEngine(const TransferLocation& location, const std::optional<TransferOptions>& options,
                 bool ephemeral, TransferClock& clock = TransferClock::systemClock());
  ~TransferEngine() override;  // closes

  std::vector<TransferTaskInfo> tasks() override;
  size_t start(Sink sink) override;
  TransferTaskId nextIdentifier() override;
  void submit(const TransferBatch& batch, Durability durability) override;
  bool work() override;
  void endWork() override;
  int64_t millisecondsUntil(int64_t timeMs) const override;
  void close() override;

  bool stateWasLost() const { return ledger_.stateWasLost(); }

  // For a front in another process, which may outlive this one: its messages take effect once, and
  // an ending is told only when it is stored. `mark` is the message that brought the batch; a Sink
  // is called, maybe without events, whenever another mark was stored.
  void serveFront() { ledger_.setStoresEndingsFirst(); }
  void submitMarked(const TransferBatch& batch, Durability durability, const TransferMark& mark);
  TransferMark storedMark() const { return ledger_.storedMark(); }
  std::vector<TransferEvent> heldEvents() const { return ledger_.heldEvents(); }
  // What a session is remembered by, for who opens it without its application. The limits of this
  // engine are those that it was made with.
  const TransferOptions& options() const { return options_; }
  [[nodiscard]] bool saveOptions(const TransferOptions& options) {
    return ledger_.saveSession(options);
  }
  // To a front that was not there when they were told.
  void tellWaitsAgain();
  // Runs the block on the engine's thread, as soon as there is one and it is not closed.
  void post(std::function<void(CurlLoop&)> block);

 private:
  void startHost();
  void run();
  void finish();
  [[nodiscard]] bool runRound() REQUIRES(turn_);
  [[nodiscard]] bool _round() REQUIRES(turn_);
  void _startOver() REQUIRES(turn_);
  void submit(const TransferBatch& batch, Durability durability, const TransferMark* mark);
  void tell(std::vector<TransferEvent>&& events);
  void post(std::vector<TransferTaskId>& touched);

  TransferClock& clock_;
  TransferLedger ledger_;
  const TransferOptions options_;
  const std::unique_ptr<CurlLoop> loop_;

  Mutex turn_;  // held while a thread runs the loop; taken before all others
  LoopShift shift_;
  const std::unique_ptr<TransferScheduler> scheduler_ PT_GUARDED_BY(turn_);
  std::atomic<bool> workEnds_{false};
  int failedRounds_ GUARDED_BY(turn_) = 0;  // since one went well
  std::string lastFailure_ GUARDED_BY(turn_);

  Mutex mutex_;
  std::shared_ptr<const Sink> sink_ GUARDED_BY(mutex_);
  std::vector<TransferTaskId> touched_ GUARDED_BY(mutex_);
  std::vector<std::function<void(CurlLoop&)>> blocks_ GUARDED_BY(mutex_);
  uint64_t toldMark_ GUARDED_BY(mutex_) = 0;
  bool started_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;
  std::thread thread_;  // set under mutex_ until it is closed, joined by close()
  std::atomic<bool> hostRuns_{false};
  std::atomic<bool> stop_{false};
  std::atomic<bool> networkChanged_{true};
  std::atomic<bool> tellsWaitsAgain_{false};
  NetworkMonitor& monitor_;
  NetworkMonitor::Watcher watcher_ = 0;
};

}  // namespace platform
