#pragma once

#include <algorithm>
#include <cstdint>

namespace platform {

// A bucket of bytes that is filled at a rate. What was read too much is paid back by waiting, so
// that the rate holds over time whatever the size of the pieces.
class RateLimiter {
 public:
  // 0: no limit.
  explicit RateLimiter(int64_t bytesPerSecond) : rate_(bytesPerSecond) {}

  bool limits() const { return rate_ > 0; }
  void take(int64_t bytes, int64_t nowMs) {
    refill(nowMs);
    if (limits()) level_ -= static_cast<double>(bytes);
  }
  bool mayRead(int64_t nowMs) {
    refill(nowMs);
    return !limits() || level_ >= 0;
  }
  // When mayRead() will be true; not before `nowMs`.
  int64_t nextReadMs(int64_t nowMs) {
    if (mayRead(nowMs)) return nowMs;
    return nowMs + 1 + static_cast<int64_t>(-level_ * 1000 / static_cast<double>(rate_));
  }

 private:
  // At most a tenth of a second is saved up.
  void refill(int64_t nowMs) {
    if (!limits()) return;
    const auto rate = static_cast<double>(rate_);
    if (filledMs_ >= 0) level_ += rate * static_cast<double>(nowMs - filledMs_) / 1000;
    level_ = std::min(level_, rate / 10);
    filledMs_ = nowMs;
  }

  const int64_t rate_;
  double level_ = 0;
  int64_t filledMs_ = -1;
};

}  // namespace platform
