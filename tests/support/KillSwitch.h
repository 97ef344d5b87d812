#pragma once

#include <atomic>
#include <cstdint>

namespace qntest {

// Ends a process as far as the disk is concerned: after a number of durable steps nothing that it
// does lasts. What is still alive of it runs on like a ghost, is dropped, and the next one finds
// what had been made durable. Thread-safe.
class KillSwitch {
 public:
  // The step that would be number `steps` (from 0) is lost, and so is all after it.
  void killAfter(int64_t steps) {
    left_ = steps;
    armed_ = true;
  }
  void disarm() { armed_ = false; }
  bool isDead() const { return armed_ && left_ < 0; }
  int64_t stepsTaken() const { return taken_; }

  // One durable step; false when it is lost.
  bool step() {
    if (armed_ && left_.fetch_sub(1) <= 0) {
      left_ = -1;
      return false;
    }
    ++taken_;
    return true;
  }

 private:
  std::atomic<bool> armed_{false};
  std::atomic<int64_t> left_{0};
  std::atomic<int64_t> taken_{0};
};

}  // namespace qntest
