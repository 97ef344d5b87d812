#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "platform/transfer/TransferClock.h"

namespace qntest {

// Time that the test moves. Each step waits until the engine has looked at it, so that a busy
// machine makes a test slow and not wrong.
class ManualClock : public platform::TransferClock {
 public:
  void advance(int64_t milliseconds) {
    std::unique_lock lock(mutex_);
    const uint64_t before = looks_;
    now_ += milliseconds;
    if (!moved_) return;
    moved_();
    looked_.wait_for(lock, std::chrono::seconds(5), [&] { return looks_ > before || !moved_; });
  }

  int64_t nowMs() const override { return now_; }
  int64_t bootMs() const override { return now_ + 1000; }
  int64_t wallSeconds() const override { return 1700000000 + now_ / 1000; }
  // The engine's last call before it waits.
  int64_t millisecondsUntil(int64_t deadlineMs) const override {
    std::lock_guard lock(mutex_);
    ++looks_;
    looked_.notify_all();
    return deadlineMs <= now_ ? 0 : -1;
  }
  void setMoved(std::function<void()> moved) override {
    std::lock_guard lock(mutex_);
    moved_ = std::move(moved);
    looked_.notify_all();
  }

 private:
  std::atomic<int64_t> now_{1'000'000};
  mutable std::mutex mutex_;
  mutable std::condition_variable looked_;
  mutable uint64_t looks_ = 0;
  std::function<void()> moved_;
};

}  // namespace qntest
