#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "platform/DispatchQueue.h"

namespace qntest {

// A queue whose blocks run when the test says so, on the test's thread, and whose time is the
// test's. Blocks may be added from any thread; blocks that leave with an exception let the test
// fail.
class ManualQueue : public platform::DispatchQueue {
 public:
  void async(platform::Block block) override;
  void after(std::chrono::nanoseconds delay, platform::Block block) override;

  // Runs the next block that is due; false when there is none.
  bool runOne();
  // Runs what is due, also what is added meanwhile; returns how many ran.
  size_t run();
  // Lets time pass, stopping at each delayed block to run it at its time; returns how many ran.
  size_t advance(std::chrono::nanoseconds time);

  std::chrono::nanoseconds now() const;
  size_t pending() const;  // due or delayed

 private:
  platform::Block _take();
  bool _stepTo(std::chrono::nanoseconds end);

  mutable std::mutex mutex_;
  std::chrono::nanoseconds now_{0};
  std::deque<platform::Block> ready_;
  std::multimap<std::chrono::nanoseconds, platform::Block> delayed_;
};

// Puts a ManualQueue in the place of the main queue for as long as it lives.
class ManualMainQueue {
 public:
  ManualMainQueue() { platform::DispatchQueue::setMainQueue(queue_); }
  ~ManualMainQueue() { platform::DispatchQueue::setMainQueue(nullptr); }
  ManualMainQueue(const ManualMainQueue&) = delete;
  ManualMainQueue& operator=(const ManualMainQueue&) = delete;

  ManualQueue* operator->() const { return queue_.get(); }

 private:
  std::shared_ptr<ManualQueue> queue_ = std::make_shared<ManualQueue>();
};

// The same for the global background queue.
class ManualBackgroundQueue {
 public:
  ManualBackgroundQueue() { platform::DispatchQueue::setGlobalBackgroundQueue(queue_); }
  ~ManualBackgroundQueue() { platform::DispatchQueue::setGlobalBackgroundQueue(nullptr); }
  ManualBackgroundQueue(const ManualBackgroundQueue&) = delete;
  ManualBackgroundQueue& operator=(const ManualBackgroundQueue&) = delete;

  ManualQueue* operator->() const { return queue_.get(); }

 private:
  std::shared_ptr<ManualQueue> queue_ = std::make_shared<ManualQueue>();
};

}  // namespace qntest
