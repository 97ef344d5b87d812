#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>

#include "platform/Mutex.h"

namespace platform {

// Whose turn it is to run a loop that one of two threads runs at a time: the guest's, which lends
// itself whenever it has nothing else to do, or the host's, which steps in while the guest stays
// away for too long. As long as the guest comes back soon, what it takes from the loop costs no
// switch of threads, and the host sleeps. Thread-safe.
class LoopShift {
 public:
  // `interrupt` makes the host look at guestIsHere(); it does not call back.
  explicit LoopShift(std::function<void()> interrupt);

  // False once it is closed. The host, if it is there, leaves after its round.
  [[nodiscard]] bool guestComes();
  void guestLeaves();
  // Makes the guest leave at its end, however that comes.
  class Visit {
   public:
    explicit Visit(LoopShift& shift) : shift_(shift) {}
    ~Visit() { shift_.guestLeaves(); }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

   private:
    LoopShift& shift_;
  };
  bool guestIsHere() const { return guestIsHere_.load(); }

  // Until the guest is away for too long, or at once while none ever came. False once it is closed.
  [[nodiscard]] bool hostWaits();
  void close();

 private:
  const std::function<void()> interrupt_;
  Mutex mutex_;
  std::condition_variable changed_;
  std::atomic<bool> guestIsHere_{false};
  uint64_t steps_ GUARDED_BY(mutex_) = 0;  // of the guest, in or out
  bool hostIsHere_ GUARDED_BY(mutex_) = false;
  bool hostSleeps_ GUARDED_BY(mutex_) = false;  // until the guest leaves
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform
