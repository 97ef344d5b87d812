#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/Mutex.h"
#include "platform/URLSession.h"
#include "platform/transfer/TransferBackend.h"

namespace platform::service {

// One session in the service: its backend, the events that wait for the application, and what is
// known of the application itself. Belongs to the service's thread; only the backend's events come
// from another one.
class ServiceSession {
 public:
  // `wake` is called, on any thread, when there are events to collect. Throws as the store does.
  ServiceSession(URLSessionConfiguration configuration, std::unique_ptr<TransferBackend> backend,
                 std::function<void()> wake);
  ~ServiceSession();

  const URLSessionConfiguration& configuration() const { return configuration_; }
  void setConfiguration(URLSessionConfiguration configuration) {
    configuration_ = std::move(configuration);
  }

  std::vector<TransferTaskInfo> tasks() { return backend_->tasks(); }
  TransferTaskId reserve(uint32_t count);
  // Durable when it returns.
  void submit(const TransferBatch& calls);
  // Transfers from now on, unless it does already.
  void start();

  // An application listens: endings that it may not have seen wait again. Returns how many.
  size_t attach();
  // Drops what was not sent of progress: an application that comes anew learns it with its tasks.
  void forgetProgress();
  // What had finished and has no file any more was delivered: its application died between moving
  // it away and saying so.
  void settleDelivered();
  void detach() { attached_ = false; }
  bool attached() const { return attached_; }

  // Takes in what the backend told. True when there is something to send.
  bool collect();
  // At most `most` events, in order.
  std::vector<TransferEvent> take(size_t most);

  bool hasEndings() const { return !endings_.empty(); }
  // Something transfers or waits to.
  bool isBusy() const;
  // Tasks stand suspended although the application wanted them to run.
  bool isStranded() const;

  // Whether the application meant its transfers to run when it was last heard of.
  bool wantsToRun() const { return wantsToRun_; }
  void setWantsToRun(bool wants) { wantsToRun_ = wants; }

  void close();

 private:
  struct Pending {
    std::vector<TransferEvent> events;  // at most a progress, a wait and an ending
  };
  struct Inbox;

  void put(TransferEvent&& event);
  void note(const TransferCall& call);

  URLSessionConfiguration configuration_;
  const std::unique_ptr<TransferBackend> backend_;
  const std::shared_ptr<Inbox> inbox_;
  bool started_ = false;
  bool attached_ = false;
  bool wantsToRun_ = false;
  std::deque<TransferTaskId> order_;
  std::unordered_map<TransferTaskId, Pending> pending_;
  std::unordered_map<TransferTaskId, TransferEvent> endings_;  // until they are acknowledged
  // Tasks without an ending, and whether each is to run.
  std::unordered_map<TransferTaskId, bool> unfinished_;
};

}  // namespace platform::service
