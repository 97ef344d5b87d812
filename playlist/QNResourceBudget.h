#pragma once

#include <cstdint>

#include "platform/Export.h"

// What the resource lists of one presentation may hold, over all its qualities. Each builder
// declares its share while the playlist is built, so that a presentation which asks for too much is
// known, whatever its order, before the first list is allocated: no list of it is built then.
// Declared are upper bounds, before neighbours are merged.
class QN_EXPORT QNResourceBudget {
 public:
  static constexpr uint64_t MaximumResources = 5'000'000;
  static constexpr uint64_t MaximumTextBytes = uint64_t{1} << 30;

  // Sums saturate.
  void declare(uint64_t resources, uint64_t textBytes);
  // Throws platform::Exception "QNPlaylistFactoryException" with the limit that is exceeded in the
  // reason.
  void check() const;

  uint64_t resources() const { return resources_; }
  uint64_t textBytes() const { return textBytes_; }

 private:
  uint64_t resources_ = 0;
  uint64_t textBytes_ = 0;
};
