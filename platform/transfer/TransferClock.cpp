#include "platform/transfer/TransferClock.h"

#include <algorithm>

#include <time.h>

namespace platform {
namespace {

int64_t milliseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

class SystemClock final : public TransferClock {
 public:
  int64_t nowMs() const override { return milliseconds(CLOCK_MONOTONIC); }
  int64_t bootMs() const override { return milliseconds(CLOCK_BOOTTIME); }
  int64_t wallSeconds() const override { return milliseconds(CLOCK_REALTIME) / 1000; }
  int64_t millisecondsUntil(int64_t deadlineMs) const override {
    return deadlineMs == kNeverMs ? -1 : std::max<int64_t>(0, deadlineMs - nowMs());
  }
  void setMoved(std::function<void()>) override {}
};

}  // namespace

TransferClock::~TransferClock() = default;

TransferClock& TransferClock::systemClock() {
  // Never destroyed: the threads of an open session look at it until the process is gone.
  static auto* const clock = new SystemClock;
  return *clock;
}

}  // namespace platform
