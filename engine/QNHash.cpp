#include "engine/QNHash.h"

#include <array>
#include <cinttypes>
#include <cstdio>

#include "platform/ContentHash.h"

uint64_t QNHash64(std::string_view text) {
  return platform::ContentHash::of(text);
}

std::string QNHexDigits(uint64_t value) {
  std::array<char, 17> digits{};
  std::snprintf(digits.data(), digits.size(), "%016" PRIx64, value);
  return digits.data();
}
