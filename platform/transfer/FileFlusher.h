#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/transfer/PartialFiles.h"
#include "platform/transfer/TransferTypes.h"

namespace platform {

// Brings partial files to the disk on a thread of its own, that is started with the first one and
// sleeps when there is none: a flush may take long and must not hold up the network. Thread-safe.
class FileFlusher {
 public:
  struct Flushed {
    TransferTaskId task = 0;
    PartialName file;
    int64_t length = 0;  // of the file, now safe from a power loss
    int error = 0;       // or why nothing more of it is than was before
  };

  // `done` is called on the thread of the flusher when takeFlushed() has something, or a flush was
  // lost.
  explicit FileFlusher(std::function<void()> done);
  // Does not wait for a flush that is under way.
  ~FileFlusher();
  FileFlusher(const FileFlusher&) = delete;
  FileFlusher& operator=(const FileFlusher&) = delete;

  // The system tells a failure once, and then takes the lost bytes for written. So after one
  // nothing is flushed of that file until it was taken. Without a thread to do it there is no
  // flush: what it was for stays as unsafe as it was.
  void flush(const Flushed& what, FileDescriptor fd);
  std::vector<Flushed> takeFlushed();
  // A flush of the file was not taken yet.
  bool isPending(const PartialName& file) const;
  // Until nothing is left to flush, for at most `milliseconds`.
  void wait(int milliseconds);

 private:
  struct State;
  const std::shared_ptr<State> state_;
};

}  // namespace platform
