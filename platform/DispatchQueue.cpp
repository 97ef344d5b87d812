#include "platform/DispatchQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>

#include "platform/Log.h"
#include "platform/Mutex.h"

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

Clock::time_point timeAfter(nanoseconds delay) {
  const auto now = Clock::now();
  return delay < Clock::time_point::max() - now ? now + delay : Clock::time_point::max();
}

void runBlock(const std::string& queue, const Block& block) {
  try {
    if (block) block();
  } catch (...) {
    logError("Block on queue " + queue + ": " + describeCurrentException());
  }
}

// The blocks of one queue, shared by the queue object and its thread: the thread is never joined,
// so a queue may be dropped by its own block, and a thread that is still inside a block keeps what
// it needs.
class QueueCore : public std::enable_shared_from_this<QueueCore> {
 public:
  explicit QueueCore(std::string name) : name_(std::move(name)) {}

  void add(Block block) {
    Wake wake;
    {
      MutexLock lock(mutex_);
      if (closed_) return;
      ready_.push_back(std::move(block));
      wake = _changed();
    }
    if (wake) (*wake)();
  }

  void addAfter(nanoseconds delay, Block block) {
    if (delay <= nanoseconds::zero()) return add(std::move(block));
    Wake wake;
    {
      MutexLock lock(mutex_);
      if (closed_) return;
      const auto time = timeAfter(delay);
      const bool isNext = delayed_.empty() || time < delayed_.begin()->first;
      delayed_.emplace(time, std::move(block));  // after those of the same time
      if (isNext) wake = _changed();
    }
    if (wake) (*wake)();
  }

  void close() {
    std::deque<Block> ready;
    std::multimap<Clock::time_point, Block> delayed;
    MutexLock lock(mutex_);
    closed_ = true;
    ready.swap(ready_);
    delayed.swap(delayed_);
    changed_.notify_all();
    // The lock is released before the blocks are destroyed.
  }

  void drive(std::function<void()> wake) {
    Wake pending;
    {
      MutexLock lock(mutex_);
      wake_ = wake ? std::make_shared<const std::function<void()>>(std::move(wake)) : nullptr;
      changed_.notify_all();
      _waitUntilNobodyRuns();
      if (!ready_.empty() || !delayed_.empty()) pending = _changed();
    }
    if (pending) (*pending)();
  }

  nanoseconds runDue() {
    size_t count = 0;
    {
      MutexLock lock(mutex_);
      _waitUntilNobodyRuns();
      if (runner_) return nanoseconds::zero();
      _moveDue();
      count = ready_.size();
    }
    for (; count > 0; --count) {
      Block block;
      {
        MutexLock lock(mutex_);
        if (ready_.empty() || runner_) break;
        _take(block);
      }
      _run(std::move(block));
    }
    MutexLock lock(mutex_);
    return _delayToNext();
  }

 private:
  using Wake = std::shared_ptr<const std::function<void()>>;

  // Tells whoever runs the blocks; the application's function is returned, to be called without the
  // lock.
  [[nodiscard]] Wake _changed() REQUIRES(mutex_) {
    if (wake_) return wake_;
    _startThread();
    changed_.notify_all();
    return nullptr;
  }

  void _startThread() REQUIRES(mutex_) {
    if (hasThread_) return;
    try {
      std::thread([self = shared_from_this()] { self->_threadMain(); }).detach();
      hasThread_ = true;
    } catch (const std::system_error& error) {
      // The blocks stay; the next call tries again.
      logError("Queue " + name_ + " has no thread: " + error.what());
    }
  }

  void _threadMain() {
    pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
    Block block;
    while (_waitForBlock(block))
      _run(std::exchange(block, nullptr));
  }

  // False when the thread has to end.
  bool _waitForBlock(Block& block) {
    MutexLock lock(mutex_);
    std::unique_lock<std::mutex> native(mutex_.native(), std::adopt_lock);
    for (;;) {
      if (closed_ || wake_) break;
      _moveDue();
      if (!runner_ && !ready_.empty()) {
        _take(block);
        native.release();
        return true;
      }
      // With a runner the application's loop is still inside a block.
      if (runner_ || delayed_.empty()) {
        changed_.wait(native);
      } else {
        const auto next = delayed_.begin()->first;
        changed_.wait_until(native, next);
      }
    }
    hasThread_ = false;
    native.release();
    return false;
  }

  void _take(Block& block) REQUIRES(mutex_) {
    block = std::move(ready_.front());
    ready_.pop_front();
    runner_ = std::this_thread::get_id();
  }

  void _run(Block block) {
    runBlock(name_, block);
    block = nullptr;  // what it captured is part of the block: nothing else runs before it is gone
    MutexLock lock(mutex_);
    runner_.reset();
    changed_.notify_all();
  }

  void _waitUntilNobodyRuns() REQUIRES(mutex_) {
    std::unique_lock<std::mutex> native(mutex_.native(), std::adopt_lock);
    while (runner_ && *runner_ != std::this_thread::get_id())
      changed_.wait(native);
    native.release();
  }

  void _moveDue() REQUIRES(mutex_) {
    if (delayed_.empty()) return;
    const auto now = Clock::now();
    while (!delayed_.empty() && delayed_.begin()->first <= now) {
      ready_.push_back(std::move(delayed_.begin()->second));
      delayed_.erase(delayed_.begin());
    }
  }

  nanoseconds _delayToNext() REQUIRES(mutex_) {
    if (!ready_.empty()) return nanoseconds::zero();
    if (delayed_.empty()) return nanoseconds(-1);
    return std::max<nanoseconds>(delayed_.begin()->first - Clock::now(), nanoseconds::zero());
  }

  const std::string name_;
  Mutex mutex_;
  std::condition_variable changed_;
  std::deque<Block> ready_ GUARDED_BY(mutex_);
  std::multimap<Clock::time_point, Block> delayed_ GUARDED_BY(mutex_);
  std::optional<std::thread::id> runner_ GUARDED_BY(mutex_);  // the thread inside a block
  Wake wake_ GUARDED_BY(mutex_);  // set: the application runs the blocks
  bool hasThread_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;
};

class ThreadQueue final : public DispatchQueue {
 public:
  explicit ThreadQueue(std::string name) : core_(std::make_shared<QueueCore>(std::move(name))) {}
  ~ThreadQueue() override { core_->close(); }

  void async(Block block) override { core_->add(std::move(block)); }
  void after(nanoseconds delay, Block block) override { core_->addAfter(delay, std::move(block)); }
  QueueCore& core() { return *core_; }

 private:
  std::shared_ptr<QueueCore> core_;
};

// A queue of the process that a test may replace.
class SharedQueue {
 public:
  explicit SharedQueue(std::string name) : real_(std::make_shared<ThreadQueue>(std::move(name))) {}

  std::shared_ptr<DispatchQueue> get() {
    MutexLock lock(mutex_);
    return replacement_ ? replacement_ : real_;
  }
  void replace(std::shared_ptr<DispatchQueue> queue) {
    MutexLock lock(mutex_);
    replacement_.swap(queue);
  }
  QueueCore& core() { return real_->core(); }

 private:
  const std::shared_ptr<ThreadQueue> real_;
  Mutex mutex_;
  std::shared_ptr<DispatchQueue> replacement_ GUARDED_BY(mutex_);
};

// Never destroyed: their threads run until the process is gone.
SharedQueue& sharedMain() {
  static auto* const queue = new SharedQueue("qn-main");
  return *queue;
}

SharedQueue& sharedBackground() {
  static auto* const queue = new SharedQueue("qn-background");
  return *queue;
}

}  // namespace

DispatchQueue::~DispatchQueue() = default;

std::shared_ptr<DispatchQueue> DispatchQueue::serialQueue(std::string name) {
  return std::make_shared<ThreadQueue>(std::move(name));
}

std::shared_ptr<DispatchQueue> DispatchQueue::mainQueue() {
  return sharedMain().get();
}

std::shared_ptr<DispatchQueue> DispatchQueue::globalBackgroundQueue() {
  return sharedBackground().get();
}

void DispatchQueue::driveMainQueueFromApplication(std::function<void()> wake) {
  sharedMain().core().drive(std::move(wake));
}

nanoseconds DispatchQueue::runMainQueue() {
  return sharedMain().core().runDue();
}

void DispatchQueue::setMainQueue(std::shared_ptr<DispatchQueue> queue) {
  sharedMain().replace(std::move(queue));
}

void DispatchQueue::setGlobalBackgroundQueue(std::shared_ptr<DispatchQueue> queue) {
  sharedBackground().replace(std::move(queue));
}

}  // namespace platform
