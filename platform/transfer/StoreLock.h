#pragma once

#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

#include "platform/FileLock.h"

namespace platform {

// The claim of one session object on a store directory: flock on the file "lock" in it, which holds
// the holder's process id.
class StoreLock {
 public:
  // Waits for at most `waitMs` for another holder to go. Throws platform::Exception
  // "NSURLSessionException" that names holder and identifier when it does not, or the file when it
  // cannot be made.
  StoreLock(const std::string& directory, const std::string& identifier, int waitMs);
  // The process that holds the lock of a directory (0 when it does not say), nullopt when none
  // does.
  static std::optional<pid_t> holder(const std::string& directory);

  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

 private:
  std::unique_ptr<FileLock> lock_;
};

}  // namespace platform
