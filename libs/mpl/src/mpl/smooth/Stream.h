#pragma once

#include <cstdint>

namespace SmoothStreaming {

// What a stream carries.
struct Stream {
  enum class Type : uint32_t { Audio = 0, Video = 1, Text = 2 };
  enum class Subtype : uint32_t {
    None = 0,
    SCMD = 1,
    CHAP = 2,
    SUBT = 3,
    CAPT = 4,
    DESC = 5,
    CTRL = 6,
    DATA = 7,
  };
};

}  // namespace SmoothStreaming
