#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The stable 64-bit hash behind everything that is named by a hash on disk: XXH3_64bits, seed 0.
uint64_t QNHash64(std::string_view text);
// 16 lower-case hexadecimal digits.
std::string QNHexDigits(uint64_t value);
