#include "qnc/qncTimer.h"

#include <ctime>
#include <utility>

#include "qnc/qncChecked.h"

namespace qnc {
namespace {

uint64_t monotonicNanoseconds() {
  timespec now{};
  if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0;
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

Timer::Clock platformClock() {
  timespec resolution{};
  const bool known = ::clock_getres(CLOCK_MONOTONIC, &resolution) == 0;
  return {monotonicNanoseconds, known ? 1e9 : 0};
}

}  // namespace

struct Timer::State {
  Clock clock;
  double ticksPerSecond = 1.0;
  uint64_t lastTickCount = 0;
  double secondsPerTick = 1.0;
};

Timer::Timer() : Timer(platformClock()) {}

Timer::Timer(Clock clock) : state_(std::make_shared<State>()) {
  state_->clock = std::move(clock);
  if (state_->clock.ticksPerSecond > 0) state_->ticksPerSecond = state_->clock.ticksPerSecond;
  state_->secondsPerTick = 1.0 / state_->ticksPerSecond;
  state_->lastTickCount = getTickCount();
}

uint64_t Timer::getTickCount() const {
  return state_->clock.ticks();
}

double Timer::getTime(uint64_t ticks) const {
  return static_cast<double>(ticks) * state_->secondsPerTick;
}

uint64_t Timer::getTimeNS(uint64_t ticks) const {
  return saturatingMul(ticks, static_cast<uint64_t>(state_->secondsPerTick * 1e9));
}

uint64_t Timer::takeDelta() {
  if (state_->lastTickCount == 0) return 0;
  const uint64_t now = getTickCount();
  return saturatingSub(now, std::exchange(state_->lastTickCount, now));
}

double Timer::getDeltaTime() {
  return getTime(takeDelta());
}
uint64_t Timer::getDeltaTimeNS() {
  return getTimeNS(takeDelta());
}

}  // namespace qnc
