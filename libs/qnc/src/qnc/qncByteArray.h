#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "qnc/qncFastString.h"

namespace qnc {

class ByteArray;

// A view of bytes that somebody else owns and keeps alive. Ordering is that of unsigned byte
// strings.
class ByteArrayRef {
 public:
  constexpr ByteArrayRef() = default;
  ByteArrayRef(const void* data, size_t size)
      : data_(static_cast<const uint8_t*>(data)), size_(size) {}
  ByteArrayRef(const ByteArray& bytes);  // NOLINT
  explicit ByteArrayRef(std::string_view text) : ByteArrayRef(text.data(), text.size()) {}

  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  uint8_t operator[](size_t index) const { return data_[index]; }
  const uint8_t* begin() const { return data_; }
  const uint8_t* end() const { return data_ + size_; }
  // Clamped to what there is.
  ByteArrayRef subRef(size_t offset, size_t count = SIZE_MAX) const;
  std::string_view view() const { return {reinterpret_cast<const char*>(data_), size_}; }

  // Standard alphabet with padding, no line breaks (RFC 4648 section 4).
  FastString toBase64() const;
  FastString toHEX() const;  // upper case, two digits a byte
  FastString toHex() const;  // lower case

  friend bool operator==(const ByteArrayRef& a, const ByteArrayRef& b) {
    return a.view() == b.view();
  }
  friend std::strong_ordering operator<=>(const ByteArrayRef& a, const ByteArrayRef& b) {
    return a.view() <=> b.view();
  }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// Bytes of its own.
class ByteArray {
 public:
  ByteArray() = default;
  explicit ByteArray(size_t size) : bytes_(size) {}  // zeros
  ByteArray(const void* data, size_t size) : ByteArray(ByteArrayRef(data, size)) {}
  explicit ByteArray(ByteArrayRef ref) : bytes_(ref.begin(), ref.end()) {}
  explicit ByteArray(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}

  // Takes what people write: white space and any other character outside the alphabet is skipped,
  // "-" and "_" count as
  // "+" and "/" (RFC 4648 section 5), decoding ends at the first "=" or at the end of the text,
  // padding may be missing, and bits that do not fill a byte are dropped. `wellFormed`, when given,
  // tells whether the text was nothing but Base64 with correct or no padding, white space aside.
  static ByteArray fromBase64(std::string_view text, bool* wellFormed = nullptr);

  // Pairs of hexadecimal digits of either case, white space between them aside. Decoding ends at
  // the first other character; an odd last digit is dropped. `wellFormed`, when given, tells
  // whether neither happened.
  static ByteArray fromHex(std::string_view text, bool* wellFormed = nullptr);

  const uint8_t* data() const { return bytes_.data(); }
  uint8_t* data() { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }
  uint8_t operator[](size_t index) const { return bytes_[index]; }
  uint8_t& operator[](size_t index) { return bytes_[index]; }
  auto begin() const { return bytes_.begin(); }
  auto end() const { return bytes_.end(); }

  ByteArrayRef ref() const { return ByteArrayRef(*this); }
  void clear() { bytes_.clear(); }
  void reserve(size_t size) { bytes_.reserve(size); }
  void resize(size_t size) { bytes_.resize(size); }  // new bytes are 0
  void append(ByteArrayRef bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }
  void append(uint8_t byte) { bytes_.push_back(byte); }

  FastString toBase64() const { return ref().toBase64(); }
  FastString toHEX() const { return ref().toHEX(); }
  FastString toHex() const { return ref().toHex(); }

  bool operator==(const ByteArray&) const = default;
  auto operator<=>(const ByteArray&) const = default;

 private:
  std::vector<uint8_t> bytes_;
};

inline ByteArrayRef::ByteArrayRef(const ByteArray& bytes)
    : data_(bytes.data()), size_(bytes.size()) {}

}  // namespace qnc
