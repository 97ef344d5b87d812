#pragma once

#include <cstdint>

namespace platform {

// A clock of time without progress, that is stopped and started.
class StallClock {
 public:
  explicit StallClock(int64_t elapsedMs = 0) : elapsedMs_(elapsedMs) {}

  void start(int64_t nowMs) {
    if (sinceMs_ < 0) sinceMs_ = nowMs;
  }
  void stop(int64_t nowMs) {
    elapsedMs_ = elapsed(nowMs);
    sinceMs_ = -1;
  }
  void reset(int64_t nowMs) {
    elapsedMs_ = 0;
    if (sinceMs_ >= 0) sinceMs_ = nowMs;
  }
  int64_t elapsed(int64_t nowMs) const {
    return elapsedMs_ + (sinceMs_ < 0 ? 0 : nowMs - sinceMs_);
  }

 private:
  int64_t elapsedMs_;
  int64_t sinceMs_ = -1;
};

// How long to wait after the n-th failure in a row (from 1): half a second, doubled each time up to
// half a minute, of which a random part is taken off so that many do not come back at once.
// `random` is from [0, 1).
int64_t backOffMs(int failures, double random);

// What is known of a server ("the same host" is scheme, name and port), shared by its tasks.
class HostHealth {
 public:
  // A task of the host tries, or stops trying.
  void taskStarted(int64_t nowMs);
  void taskStopped(int64_t nowMs);
  void madeProgress(int64_t nowMs);
  // An attempt failed; nobody asks the host before `retryAtMs`. Held: also when others succeed.
  void failed(int64_t retryAtMs, bool held);

  int64_t stalledMs(int64_t nowMs) const { return clock_.elapsed(nowMs); }
  int failures() const { return failures_; }
  int64_t retryAtMs() const { return retryAtMs_; }

 private:
  StallClock clock_;
  int trying_ = 0;
  int failures_ = 0;
  int64_t retryAtMs_ = 0;
  bool held_ = false;
};

}  // namespace platform
