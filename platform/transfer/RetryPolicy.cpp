#include "platform/transfer/RetryPolicy.h"

#include <algorithm>

namespace platform {
namespace {

constexpr int64_t kFirstDelayMs = 500;
constexpr int64_t kLongestDelayMs = 30'000;

}  // namespace

int64_t backOffMs(int failures, double random) {
  int64_t delay = kFirstDelayMs;
  for (int i = 1; i < failures && delay < kLongestDelayMs; ++i)
    delay *= 2;
  delay = std::min(delay, kLongestDelayMs);
  return delay - static_cast<int64_t>(static_cast<double>(delay) * random / 2);
}

void HostHealth::taskStarted(int64_t nowMs) {
  if (trying_++ == 0) clock_.start(nowMs);
}

void HostHealth::taskStopped(int64_t nowMs) {
  if (--trying_ == 0) clock_.stop(nowMs);
}

void HostHealth::madeProgress(int64_t nowMs) {
  clock_.reset(nowMs);
  failures_ = 0;
  if (!held_ || retryAtMs_ <= nowMs) {
    retryAtMs_ = 0;
    held_ = false;
  }
}

void HostHealth::failed(int64_t retryAtMs, bool held) {
  ++failures_;
  retryAtMs_ = std::max(retryAtMs_, retryAtMs);
  held_ = held_ || held;
}

}  // namespace platform
