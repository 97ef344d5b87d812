#include "platform/transfer/FileFlusher.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <utility>

#include "platform/Log.h"
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
  bool toldWhy GUARDED_BY(mutex) = false;  // it could not be
  bool busy GUARDED_BY(mutex) = false;
  PartialName current GUARDED_BY(mutex);  // while busy
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
    current = request.what.file;
    return true;
  }

  void run() {
    Request request;
    while (next(request)) {
      try {
        serve(request);
      } catch (...) {
        logError("A flush was lost: " + describeCurrentException());
        MutexLock lock(mutex);
        busy = false;
        if (!stop) done();  // who waits for it looks again
      }
    }
  }

  void serve(Request& request) {
    request.what.error = PartialFiles::flush(request.fd.get());
    request.fd.reset();
    MutexLock lock(mutex);
    busy = false;  // before anybody is told
    if (stop) return;
    if (request.what.error != 0) {
      std::erase_if(requests, [&](const Request& r) { return r.what.file == request.what.file; });
    }
    flushed.push_back(request.what);
    // Under the lock, so that it is not called once the flusher is gone.
    done();
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
  const bool failed = std::any_of(
      state_->flushed.begin(), state_->flushed.end(),
      [&what](const Flushed& known) { return known.file == what.file && known.error != 0; });
  if (failed) return;
  state_->requests.push_back({what, std::move(fd)});
  try {
    if (!state_->started) startThread("qn-flush", [state = state_] { state->run(); }).detach();
    state_->started = true;
  } catch (...) {
    state_->requests.clear();
    if (!std::exchange(state_->toldWhy, true))
      logError("Nothing is flushed to the disk: " + describeCurrentException());
  }
  state_->changed.notify_all();
}

std::vector<FileFlusher::Flushed> FileFlusher::takeFlushed() {
  MutexLock lock(state_->mutex);
  return std::exchange(state_->flushed, {});
}

bool FileFlusher::isPending(const PartialName& file) const {
  MutexLock lock(state_->mutex);
  if (state_->busy && state_->current == file) return true;
  const auto of = [&file](const Flushed& what) { return what.file == file; };
  return std::any_of(state_->flushed.begin(), state_->flushed.end(), of) ||
         std::any_of(state_->requests.begin(), state_->requests.end(),
                     [&of](const State::Request& request) { return of(request.what); });
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
