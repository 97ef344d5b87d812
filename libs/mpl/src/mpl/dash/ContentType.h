#pragma once

#include <cstdint>

namespace mpl::dash {

enum class ContentType : uint32_t { Unknown = 0, Video = 1, Audio = 2, Text = 3 };

}  // namespace mpl::dash
