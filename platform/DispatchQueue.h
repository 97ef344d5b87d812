#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/Export.h"

namespace platform {

using Block = std::function<void()>;

// A serial queue of blocks. Thread-safe. Exceptions that leave a block are logged and end there. The last reference to
// a queue may be dropped anywhere, also from one of its own blocks; blocks that were not started are dropped with it.
class QN_EXPORT DispatchQueue {
 public:
  virtual ~DispatchQueue();

  static std::shared_ptr<DispatchQueue> serialQueue(std::string name);
  // The main queue: driven by a thread of its own, or by the application's loop once it has called
  // `driveMainQueueFromApplication`.
  static std::shared_ptr<DispatchQueue> mainQueue();
  // Background quality of service: for work that nobody waits for. One thread, started on first use.
  static std::shared_ptr<DispatchQueue> globalBackgroundQueue();

  virtual void async(Block block) = 0;
  virtual void after(std::chrono::nanoseconds delay, Block block) = 0;

  // From now on blocks of the main queue run only inside `runMainQueue`. `wake` is called, on any thread, when there is
  // something to run or the time of the next delayed block changed.
  static void driveMainQueueFromApplication(std::function<void()> wake);
  // Runs what is due; returns how long until the next delayed block, or nullopt-like -1 ns when there is none.
  static std::chrono::nanoseconds runMainQueue();

  // Tests replace the shared queues; null restores them.
  static void setMainQueue(std::shared_ptr<DispatchQueue> queue);
  static void setGlobalBackgroundQueue(std::shared_ptr<DispatchQueue> queue);
};

}  // namespace platform
