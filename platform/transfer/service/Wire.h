#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The bytes of a message between library and service: integers little-endian and of fixed width,
// texts with a 32-bit length before them. A reader never reads past its bytes: it fails once, for
// good, and then yields zeros and empty texts, so that a decoder checks only at its end.
namespace platform::service {

class WireWriter {
 public:
  void u8(uint8_t value) { bytes_.push_back(static_cast<char>(value)); }
  void boolean(bool value) { u8(value ? 1 : 0); }
  void u32(uint32_t value) { put(value); }
  void u64(uint64_t value) { put(value); }
  void i64(int64_t value) { put(static_cast<uint64_t>(value)); }
  void real(double value);
  void text(std::string_view value);
  // Bytes as they stand, without a length.
  void raw(std::string_view bytes) { bytes_.append(bytes); }

  const std::string& bytes() const { return bytes_; }
  std::string take() { return std::move(bytes_); }

 private:
  template <class T>
  void put(T value) {
    for (size_t i = 0; i < sizeof(T); ++i)
      bytes_.push_back(static_cast<char>(value >> (8 * i)));
  }

  std::string bytes_;
};

class WireReader {
 public:
  explicit WireReader(std::string_view bytes) : bytes_(bytes) {}

  uint8_t u8() { return static_cast<uint8_t>(get(1)); }
  // Anything but 0 and 1 is a failure.
  bool boolean();
  uint32_t u32() { return static_cast<uint32_t>(get(4)); }
  uint64_t u64() { return get(8); }
  int64_t i64() { return static_cast<int64_t>(get(8)); }
  double real();
  std::string text();
  // A count of things that take at least `minimumBytes` each: a larger one than could follow fails,
  // so that nothing is reserved for what is not there.
  uint32_t count(size_t minimumBytes);

  void fail() { failed_ = true; }
  bool failed() const { return failed_; }
  // Everything was read and nothing was missing.
  bool atEnd() const { return !failed_ && position_ == bytes_.size(); }

 private:
  uint64_t get(size_t width);

  std::string_view bytes_;
  size_t position_ = 0;
  bool failed_ = false;
};

}  // namespace platform::service
