#include "tests/support/ManualQueue.h"

#include <algorithm>
#include <utility>

namespace qntest {

using std::chrono::nanoseconds;

void ManualQueue::async(platform::Block block) {
  std::lock_guard lock(mutex_);
  ready_.push_back(std::move(block));
}

void ManualQueue::after(nanoseconds delay, platform::Block block) {
  std::lock_guard lock(mutex_);
  delayed_.emplace(now_ + std::max(delay, nanoseconds::zero()), std::move(block));
}

platform::Block ManualQueue::_take() {
  std::lock_guard lock(mutex_);
  while (!delayed_.empty() && delayed_.begin()->first <= now_) {
    ready_.push_back(std::move(delayed_.begin()->second));
    delayed_.erase(delayed_.begin());
  }
  if (ready_.empty()) return nullptr;
  auto block = std::move(ready_.front());
  ready_.pop_front();
  return block;
}

bool ManualQueue::runOne() {
  const auto block = _take();
  if (!block) return false;
  block();
  return true;
}

size_t ManualQueue::run() {
  size_t count = 0;
  while (runOne())
    ++count;
  return count;
}

// Moves the time to the next delayed block, or to `end` when there is none before it; false once it
// is there.
bool ManualQueue::_stepTo(nanoseconds end) {
  std::lock_guard lock(mutex_);
  const bool hasNext = !delayed_.empty() && delayed_.begin()->first <= end;
  now_ = hasNext ? std::max(now_, delayed_.begin()->first) : end;
  return hasNext;
}

size_t ManualQueue::advance(nanoseconds time) {
  const auto end = now() + time;
  size_t count = run();
  while (_stepTo(end))
    count += run();
  return count;
}

nanoseconds ManualQueue::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

size_t ManualQueue::pending() const {
  std::lock_guard lock(mutex_);
  return ready_.size() + delayed_.size();
}

}  // namespace qntest
