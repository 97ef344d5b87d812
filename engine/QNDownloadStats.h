#pragma once

#include <cstdint>

#include "engine/QNDownloadTypes.h"

// What resources, qualities and sets tell of their size, in bytes. A set may be asked on any
// thread, the others by the holder of its lock.
class QN_EXPORT QNDownloadStats {
 public:
  virtual ~QNDownloadStats() = default;

  virtual QNDownloadSize expectedBytes() const = 0;
  virtual int64_t downloadedBytes() const = 0;
  virtual QNDownloadProgress progress() const = 0;
};
