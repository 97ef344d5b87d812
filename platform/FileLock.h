#pragma once

#include <memory>
#include <string>

#include <sys/types.h>

#include "platform/Error.h"
#include "platform/FileDescriptor.h"

namespace platform {

// The exclusive flock of an open file or directory: one holder among all processes, and among the
// open files of one process. Given up by a forked child and closed on exec, so that it ends with
// this object, at the latest with this process. Thread-safe.
class FileLock {
 public:
  // What became of a try for the lock of a directory. All null: there is no such directory, or its
  // file system knows no such locks.
  struct Attempt {
    std::unique_ptr<FileLock> lock;
    bool isHeld = false;  // by somebody else
    pid_t holder = 0;     // then the process, 0 when the system does not say
    ErrorPtr error;       // the directory cannot be opened
  };

  // Both without waiting.
  // 0, or an errno: EWOULDBLOCK while somebody else has it. The descriptor is taken over when it
  // succeeds.
  [[nodiscard]] static int take(FileDescriptor& fd, std::unique_ptr<FileLock>& lock);
  // The directory itself is locked: that needs no file in it, and goes along when it is renamed.
  static Attempt ofDirectory(const std::string& path);

  // Leaves a text with what is locked, for the next holder: whether it was the same before. False
  // also where the file system keeps no such texts (extended attributes). An attribute needs no
  // file, and goes along with a rename as well.
  [[nodiscard]] bool exchangeNote(const std::string& text) const;

  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  explicit FileLock(FileDescriptor fd);

  FileDescriptor fd_;
  const pid_t process_;
};

}  // namespace platform
