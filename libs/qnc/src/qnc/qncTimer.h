#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace qnc {

// Monotonic elapsed time in ticks of the platform's clock. Copies share one state. Not
// synchronised.
class Timer {
 public:
  // Where ticks come from, for tests. A rate of 0 stands for a clock whose rate cannot be told: it
  // counts as 1.0.
  struct Clock {
    std::function<uint64_t()> ticks;
    double ticksPerSecond = 0;
  };

  Timer();
  explicit Timer(Clock clock);

  uint64_t getTickCount() const;
  // Seconds; of now or of a tick count.
  double getTime() const { return getTime(getTickCount()); }
  double getTime(uint64_t ticks) const;
  uint64_t getTimeNS() const { return getTimeNS(getTickCount()); }
  uint64_t getTimeNS(uint64_t ticks) const;
  // Since construction or since the last of these calls. 0, and nothing is stored, while the stored
  // tick count is 0.
  double getDeltaTime();
  uint64_t getDeltaTimeNS();

 private:
  struct State;
  uint64_t takeDelta();

  std::shared_ptr<State> state_;
};

}  // namespace qnc
