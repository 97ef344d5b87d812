#pragma once

#include <cstdint>
#include <functional>
#include <limits>

namespace platform {

// A point in time that never comes.
inline constexpr int64_t kNeverMs = std::numeric_limits<int64_t>::max();

// The time by which transfers back off and time out. Tests replace it, so that no unit test waits.
class TransferClock {
 public:
  static TransferClock& systemClock();

  virtual ~TransferClock();
  // Milliseconds; stands still while the machine sleeps.
  virtual int64_t nowMs() const = 0;
  // Milliseconds since the machine was started, asleep or not: what is stored.
  virtual int64_t bootMs() const = 0;
  // Seconds since 1970, for HTTP dates.
  virtual int64_t wallSeconds() const = 0;
  // How long a thread may sleep until `deadlineMs` of nowMs(); -1: until it is woken.
  virtual int64_t millisecondsUntil(int64_t deadlineMs) const = 0;
  // A clock that is moved by hand calls `moved` after each move; null removes it. One at a time.
  virtual void setMoved(std::function<void()> moved) = 0;
};

}  // namespace platform
