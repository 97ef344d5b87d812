#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "platform/transfer/TransferClock.h"

namespace qntest {

// Time that the test moves.
class ManualClock : public platform::TransferClock {
 public:
  void advance(int64_t milliseconds) {
    now_ += milliseconds;
    std::lock_guard lock(mutex_);
    if (moved_) moved_();
  }

  int64_t nowMs() const override { return now_; }
  int64_t bootMs() const override { return now_ + 1000; }
  int64_t wallSeconds() const override { return 1700000000 + now_ / 1000; }
  int64_t millisecondsUntil(int64_t deadlineMs) const override {
    return deadlineMs <= now_ ? 0 : -1;
  }
  void setMoved(std::function<void()> moved) override {
    std::lock_guard lock(mutex_);
    moved_ = std::move(moved);
  }

 private:
  std::atomic<int64_t> now_{1'000'000};
  std::mutex mutex_;
  std::function<void()> moved_;
};

}  // namespace qntest
