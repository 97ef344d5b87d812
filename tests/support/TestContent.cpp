#include "tests/support/TestContent.h"

#include <algorithm>
#include <fstream>
#include <vector>

namespace qntest {

namespace {

uint64_t mix(uint64_t x) {  // splitmix64
  x += 0x9E3779B97F4A7C15U;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
  return x ^ (x >> 31);
}

uint64_t seedOf(std::string_view path, int version) {
  uint64_t hash = 0xCBF29CE484222325U;  // FNV-1a
  for (const char c : path)
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
  return mix(hash + static_cast<uint64_t>(version));
}

}  // namespace

void fillContent(std::string_view path, int version, uint64_t offset, char* bytes, size_t count) {
  const uint64_t seed = seedOf(path, version);
  for (size_t i = 0; i < count;) {
    const uint64_t at = offset + i;
    uint64_t word = mix(seed + at / 8) >> (8 * (at % 8));
    for (uint64_t k = at % 8; k < 8 && i < count; ++k, ++i, word >>= 8)
      bytes[i] = static_cast<char>(word & 0xFF);
  }
}

std::string contentOf(std::string_view path, int version, uint64_t offset, size_t count) {
  std::string bytes(count, '\0');
  fillContent(path, version, offset, bytes.data(), count);
  return bytes;
}

std::string compareWithContent(const std::string& file, std::string_view path, int version,
                               uint64_t size, uint64_t offset) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return "no file " + file;
  std::vector<char> buffer(size_t{256} << 10);
  uint64_t at = 0;
  while (in) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    const auto got = static_cast<size_t>(in.gcount());
    const std::string wanted = contentOf(path, version, offset + at, got);
    const auto differs = std::mismatch(wanted.begin(), wanted.end(), buffer.begin()).first;
    const uint64_t same = at + static_cast<uint64_t>(differs - wanted.begin());
    if (same < std::min(size, at + got)) return file + " differs at byte " + std::to_string(same);
    at += got;
  }
  if (at != size) return file + " has " + std::to_string(at) + " bytes of " + std::to_string(size);
  return "";
}

}  // namespace qntest
