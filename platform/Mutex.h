#pragma once

#include <mutex>

#include "platform/ThreadAnnotations.h"

namespace platform {

// The annotated locks. RecursiveMutex is the monitor that a downloader shares with its sets: a
// callback made under it may call back in on the same thread.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  // For waiting on a condition variable while a MutexLock is held.
  std::mutex& native() { return mutex_; }

 private:
  std::mutex mutex_;
};

template <class M>
class SCOPED_CAPABILITY BasicLock {
 public:
  explicit BasicLock(M& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~BasicLock() RELEASE() { mutex_.unlock(); }
  BasicLock(const BasicLock&) = delete;
  BasicLock& operator=(const BasicLock&) = delete;

 private:
  M& mutex_;
};

using RecursiveLock = BasicLock<RecursiveMutex>;
using MutexLock = BasicLock<Mutex>;

}  // namespace platform
