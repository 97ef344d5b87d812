#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/FileDescriptor.h"

namespace platform {

// Room that a database's write-ahead log has on the disk before it needs it: blocks beyond its end.
// When the disk is full, what was delivered can still be remembered; a kill would bring it back.
class StoreReserve {
 public:
  explicit StoreReserve(std::string logPath) : path_(std::move(logPath)) {}

  // Keeps the log ahead of what was written. Cheap; after every transaction.
  void renew();

 private:
  const std::string path_;
  FileDescriptor fd_;
  int64_t allocated_ = 0;
};

}  // namespace platform
