#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/URLSession.h"
#include "platform/transfer/TransferEngine.h"
#include "platform/transfer/service/ServiceConnection.h"
#include "platform/transfer/service/SessionRegistry.h"

namespace platform::service {

class ServiceLine;

// One session in the service: its engine, the events that wait for the application, and what is
// known of the application itself. Belongs to the service's thread, and while the client of a
// started session is served, from talk() until it is given back, to the engine's: what the client
// says and hears then needs no other thread.
class ServiceSession {
 public:
  // `wake` is called, on any thread, when collect() or takeReturned() has something to do. Throws
  // as the store does.
  ServiceSession(const SessionRegistry& registry, SessionRecord record,
                 std::unique_ptr<TransferEngine> engine, std::function<void()> wake);
  ~ServiceSession();

  const SessionRecord& record() const { return record_; }
  // Takes over what an application wants now; false when that needs another engine.
  [[nodiscard]] bool adopt(const TransferOptions& options);
  const std::optional<LaunchCommand>& launchCommand() const { return options_.launchCommand; }
  void forgetLaunchCommand();

  std::vector<TransferTaskInfo> tasks() { return engine_->tasks(); }
  // A client with this number comes; those of its batches that took effect will not do so again.
  void open(uint64_t front);
  // What had finished and has no file any more was delivered: its application died between moving
  // it away and saying so.
  void settleDelivered();
  // Transfers from now on, unless it does already.
  void start();

  // A batch or a reservation takes effect, the batch with submit(). False for other messages, which
  // are left alone, and for what nobody may ask.
  [[nodiscard]] bool take(ServiceConnection& connection, Message& message);
  void submit(ServiceConnection& connection);
  // Answers what has become durable.
  void acknowledge(ServiceConnection& connection) const;
  // Stores at once what took effect; false when it could not be stored.
  [[nodiscard]] bool commit();

  // An application listens: endings that it may not have seen wait again. Returns how many.
  size_t attach();
  // From now on the client is served on the engine's thread.
  void talk(std::unique_ptr<ServiceConnection> connection);
  // A client that left or said what is not the session's business.
  struct Returned {
    std::unique_ptr<ServiceConnection> connection;
    std::optional<Message> message;
  };
  Returned takeReturned();
  void detach();

  // Takes in what the engine told while no client was served.
  void collect();
  // At most `most` events, in order.
  std::vector<TransferEvent> takeEvents(size_t most);
  bool hasEvents() const { return !order_.empty(); }

  bool hasEndings() const { return !endings_.empty(); }
  // Something transfers or waits to.
  bool isBusy() const { return running_ > 0; }
  // Tasks stand suspended although the application wanted them to run.
  bool isStranded() const { return record_.wantsToRun && unfinished_.size() > running_; }

  // Whether the application meant its transfers to run when it was last heard of.
  void setWantsToRun(bool wants) { record_.wantsToRun = wants; }
  void setLaunches(uint32_t launches) { record_.launches = launches; }
  // Stores what changed of these.
  void save();

  void close();

 private:
  friend class ServiceLine;
  struct Pending {
    std::vector<TransferEvent> events;  // at most a progress, a wait and an ending
  };
  struct Inbox;

  void hear(std::vector<TransferEvent>&& events);
  void takeIn(std::vector<TransferEvent>&& events);
  void put(TransferEvent&& event);
  void note(const TransferCall& call);
  void setUnfinished(TransferTaskId task, bool running);
  void forget(TransferTaskId task);
  void giveBack(Returned returned);

  const SessionRegistry& registry_;
  const std::shared_ptr<Inbox> inbox_;
  std::shared_ptr<ServiceLine> line_;   // of the engine's thread
  std::atomic<bool> isTalking_{false};  // set by the engine's thread
  bool started_ = false;
  bool attached_ = false;
  uint64_t front_ = 0;
  uint64_t applied_ = 0;  // the front's last message that took effect
  SessionRecord record_;
  std::optional<SessionRecord> saved_;
  std::deque<TransferTaskId> order_;
  std::unordered_map<TransferTaskId, Pending> pending_;
  std::unordered_set<TransferTaskId> endings_;  // until they are acknowledged
  // Tasks without an ending, and whether each is to run.
  std::unordered_map<TransferTaskId, bool> unfinished_;
  size_t running_ = 0;  // of these
  TransferOptions options_;
  // Last: its thread has ended when the rest goes.
  const std::unique_ptr<TransferEngine> engine_;
};

}  // namespace platform::service
