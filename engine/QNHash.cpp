#include "engine/QNHash.h"

#include "platform/ContentHash.h"

uint64_t QNHash64(std::string_view text) {
  return platform::ContentHash::of(text);
}

std::string QNHexDigits(uint64_t value) {
  std::string digits(16, '0');
  for (size_t i = digits.size(); value != 0; value >>= 4)
    digits[--i] = "0123456789abcdef"[value & 15];
  return digits;
}
