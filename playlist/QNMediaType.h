#pragma once

#include <cstdint>
#include <string>

#include "platform/Export.h"

// What a track or quality holds. The values are compared numerically and may be stored.
enum QNMediaType : uint64_t {
  QNMediaTypeUnknown = 0,
  QNMediaTypeVideo = 1,
  QNMediaTypeAudio = 2,
  QNMediaTypeText = 3,
};

// The default four-character code: "vide", "audi" or "text". Any other type throws
// platform::Exception "InvalidArgumentException", reason "Invalid media type".
QN_EXPORT std::string fourCCWithMediaType(QNMediaType type);
