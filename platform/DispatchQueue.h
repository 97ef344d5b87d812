#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/Export.h"

namespace platform {

using Block = std::function<void()>;

// A serial queue of blocks. Thread-safe. Exceptions that leave a block are logged and end there.
// The last reference to a queue may be dropped anywhere, also from one of its own blocks: nothing
// waits for the block that is running then, and blocks that were not started are destroyed with the
// queue, on the dropping thread.
class QN_EXPORT DispatchQueue {
 public:
  virtual ~DispatchQueue();

  static std::shared_ptr<DispatchQueue> serialQueue(std::string name);
  // The main queue: driven by a thread of its own, or by the application's loop once it has called
  // `driveMainQueueFromApplication`.
  static std::shared_ptr<DispatchQueue> mainQueue();
  // Background quality of service: for work that nobody waits for. One thread, started on first
  // use.
  static std::shared_ptr<DispatchQueue> globalBackgroundQueue();

  // Blocks run in the order of the calls, never inside the call.
  virtual void async(Block block) = 0;
  // Not before `delay` has passed (monotonic clock); a delay of 0 or less is `async`. Blocks that
  // are due at the same time run in the order of the calls.
  virtual void after(std::chrono::nanoseconds delay, Block block) = 0;

  // From now on blocks of the main queue run only inside `runMainQueue`; a block that runs
  // meanwhile is waited for, unless the caller is that block. `wake` is called, on any thread, with
  // no lock held, when there is something to run or the time of the next delayed block changed.
  // Null gives the queue back to its own thread.
  static void driveMainQueueFromApplication(std::function<void()> wake);
  // Runs what is due at the time of the call, on the calling thread; returns how long until there
  // is more (0: at once), or a negative duration when nothing is queued. Inside a block of the main
  // queue it runs nothing.
  static std::chrono::nanoseconds runMainQueue();

  // Tests replace the shared queues; null restores them.
  static void setMainQueue(std::shared_ptr<DispatchQueue> queue);
  static void setGlobalBackgroundQueue(std::shared_ptr<DispatchQueue> queue);
};

}  // namespace platform
