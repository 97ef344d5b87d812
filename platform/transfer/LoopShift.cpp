#include "platform/transfer/LoopShift.h"

#include <chrono>
#include <utility>

namespace platform {
namespace {

// Sockets can be left alone for so long.
constexpr auto kPatience = std::chrono::milliseconds(5);

}  // namespace

LoopShift::LoopShift(std::function<void()> interrupt) : interrupt_(std::move(interrupt)) {}

bool LoopShift::guestComes() {
  MutexLock lock(mutex_);
  if (closed_) return false;
  ++steps_;
  guestIsHere_.store(true);
  if (hostIsHere_) interrupt_();
  return true;
}

void LoopShift::guestLeaves() {
  MutexLock lock(mutex_);
  ++steps_;
  guestIsHere_.store(false);
  if (std::exchange(hostSleeps_, false)) changed_.notify_one();
}

bool LoopShift::hostWaits() {
  MutexLock lock(mutex_);
  std::unique_lock<std::mutex> native(mutex_.native(), std::adopt_lock);
  hostIsHere_ = false;
  // A guest that comes and goes is looked at now and then, rather than waking the host each time.
  while (!closed_ && steps_ > 0) {
    const uint64_t before = steps_;
    changed_.wait_for(native, kPatience);
    if (steps_ != before) continue;
    if (!guestIsHere_.load()) break;
    hostSleeps_ = true;
    while (hostSleeps_ && !closed_)
      changed_.wait(native);
  }
  hostIsHere_ = true;
  native.release();
  return !closed_;
}

void LoopShift::close() {
  MutexLock lock(mutex_);
  closed_ = true;
  changed_.notify_one();
}

}  // namespace platform
