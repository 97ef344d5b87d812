#include "platform/transfer/FileFlusher.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <utility>

#include <unistd.h>

#include "platform/Mutex.h"
#include "platform/transfer/ThreadSetup.h"

namespace platform {

struct FileFlusher::State {
  struct Request {
    Flushed what;
    FileDescriptor fd;
  };

  Mutex mutex;
  std::condition_variable changed;
  std::deque<Request> requests GUARDED_BY(mutex);
  std::vector<Flushed> flushed GUARDED_BY(mutex);
  std::function<void()> done GUARDED_BY(mutex);
  bool started GUARDED_BY(mutex) = false;
  bool busy GUARDED_BY(mutex) = false;
  bool stop GUARDED_BY(mutex) = false;

  bool next(Request& request) {
    MutexLock lock(mutex);
    busy = false;
    changed.notify_all();
    std::unique_lock<std::mutex> native(mutex.native(), std::adopt_lock);
    while (requests.empty() && !stop)
      changed.wait(native);
    native.release();
    if (stop) return false;
    request = std::move(requests.front());
    requests.pop_front();
    busy = true;
    return true;
  }

  void run() {
    Request request;
    while (next(request)) {
      const bool safe = ::fdatasync(request.fd.get()) == 0;
      request.fd.reset();
      MutexLock lock(mutex);
      if (!safe || stop) continue;
      flushed.push_back(request.what);
      // Under the lock, so that it is not called once the flusher is gone.
      done();
    }
  }
};

FileFlusher::FileFlusher(std::function<void()> done) : state_(std::make_shared<State>()) {
  MutexLock lock(state_->mutex);
  state_->done = std::move(done);
}

FileFlusher::~FileFlusher() {
  MutexLock lock(state_->mutex);
  state_->stop = true;
  state_->requests.clear();
  state_->changed.notify_all();
}

void FileFlusher::flush(const Flushed& what, FileDescriptor fd) {
  MutexLock lock(state_->mutex);
  state_->requests.push_back({what, std::move(fd)});
  if (!std::exchange(state_->started, true)) {
    startThread("qn-flush", [state = state_] { state->run(); }).detach();
  }
  state_->changed.notify_all();
}

std::vector<FileFlusher::Flushed> FileFlusher::takeFlushed() {
  MutexLock lock(state_->mutex);
  return std::exchange(state_->flushed, {});
}

void FileFlusher::wait(int milliseconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  MutexLock lock(state_->mutex);
  std::unique_lock<std::mutex> native(state_->mutex.native(), std::adopt_lock);
  while (!state_->requests.empty() || state_->busy) {
    if (state_->changed.wait_until(native, deadline) == std::cv_status::timeout) break;
  }
  native.release();
}

}  // namespace platform
