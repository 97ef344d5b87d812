#pragma once

#include <cstdint>

#include "engine/QNDownloadTypes.h"

// What resources, qualities and sets tell of their size.
class QN_EXPORT QNDownloadStats {
 public:
  virtual ~QNDownloadStats() = default;

  virtual QNDownloadSize expectedBytes() const = 0;
  virtual int64_t downloadedBytes() const = 0;
  virtual QNDownloadProgress progress() const = 0;
};
