#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string_view>

#include "qnc/qncByteArray.h"
#include "qnc/qncFastString.h"
#include "qnc/qncResult.h"

namespace qnc {

class Stream;

// 16 bytes, compared as an unsigned byte string. The default is all zero, the nil UUID.
class Uuid {
 public:
  static constexpr size_t kSize = 16;

  Uuid() = default;
  // The first 16 bytes; fewer leave the rest zero.
  Uuid(const void* bytes, size_t length);
  explicit Uuid(const ByteArray& bytes) : Uuid(bytes.data(), bytes.size()) {}
  // Hexadecimal text, a leading "0x" and hyphens aside. Digits beyond 16 bytes are ignored, fewer
  // leave the rest zero.
  explicit Uuid(std::string_view text);
  explicit Uuid(const char* text) : Uuid(std::string_view(text)) {}
  explicit Uuid(const FastString& text) : Uuid(text.view()) {}

  // Random bytes of the operating system; no version or variant bits are set. Throws std::exception
  // when
  // "/dev/urandom" cannot be read.
  static Uuid generateRandom();

  bool isNil() const { return *this == Uuid(); }
  FastString toString() const;  // lower case, 8-4-4-4-12
  FastString toHEX() const;     // upper case, no separators
  ByteArray toByteArray() const { return ByteArray(bytes_.data(), bytes_.size()); }

  // The same key identifier as common encryption writes it: the first three fields are
  // little-endian in a PlayReady header and big-endian here.
  Uuid playreadyToCenc() const;

  uint8_t operator[](size_t index) const { return bytes_[index]; }
  uint8_t& operator[](size_t index) { return bytes_[index]; }
  const uint8_t* data() const { return bytes_.data(); }

  // 16 raw bytes. A short read leaves this unchanged.
  [[nodiscard]] Result readFromStream(Stream& stream);
  [[nodiscard]] Result writeToStream(Stream& stream) const;

  bool operator==(const Uuid&) const = default;
  auto operator<=>(const Uuid&) const = default;

 private:
  std::array<uint8_t, kSize> bytes_{};
};

}  // namespace qnc
