#include "engine/QNHash.h"

#include <array>
#include <cinttypes>
#include <cstdio>

#include <xxhash.h>

uint64_t QNHash64(std::string_view text) {
  return XXH3_64bits(text.data(), text.size());
}

std::string QNHexDigits(uint64_t value) {
  std::array<char, 17> digits{};
  std::snprintf(digits.data(), digits.size(), "%016" PRIx64, value);
  return digits.data();
}
