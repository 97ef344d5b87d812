#pragma once

#include <cstdint>

#include "qnc/qncXml.h"

// A small manifest can ask for much memory: what an element states once is handed down to every
// quality below it, and a quality costs a kilobyte however short its element is. Both are counted
// before anything is built. Real presentations stay far below. Not a public header.
struct QNManifestLimits {
  static constexpr uint64_t MaximumQualities = 500'000;
  static constexpr uint64_t MaximumInheritedBytes = uint64_t{256} << 20;

  // Of an MPD or a Smooth Streaming manifest; anything else has nothing to count. Throws
  // platform::Exception "QNPlaylistFactoryException" with the limit in the reason. Costs no more
  // than a look at each element that is neither a segment nor below one.
  static void check(const qnc::xml::Element& root);
};
