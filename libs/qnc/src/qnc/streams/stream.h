#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>

#include "qnc/qncByteArray.h"
#include "qnc/qncResult.h"

namespace qnc {

// A sequence of bytes with a position. Not synchronised.
//
// End of file: a read gives what is left and 0 at the end; isEOF is true once the position is at
// the end, before any read has failed. The typed operations are whole or fail: with too few bytes
// left a typed read returns EndOfFile, leaves its value alone and the position where it was.
class Stream {
 public:
  virtual ~Stream() = default;

  // Number of bytes read or written; less than `size` only at the end (or the capacity) of the
  // stream.
  [[nodiscard]] virtual size_t read(void* data, size_t size) = 0;
  [[nodiscard]] virtual size_t write(const void* data, size_t size) = 0;
  virtual uint64_t position() const = 0;
  virtual uint64_t size() const = 0;
  // OutOfRange, and no move, beyond the end.
  [[nodiscard]] virtual Result seek(uint64_t position) = 0;

  bool isEOF() const { return position() >= size(); }
  uint64_t remaining() const { return isEOF() ? 0 : size() - position(); }
  // Moves forward; EndOfFile, and no move, when fewer bytes are left.
  [[nodiscard]] Result skip(uint64_t count);
  [[nodiscard]] Result readAll(void* data, size_t size);
  [[nodiscard]] Result writeAll(const void* data, size_t size);  // IOError when not everything fits
  [[nodiscard]] Result writeAll(ByteArrayRef bytes) { return writeAll(bytes.data(), bytes.size()); }

  // Integers of 1 to 8 bytes, most significant byte first (BE) or last (LE).
  template <std::integral T>
  [[nodiscard]] Result readBE(T& value) {
    return readInteger(value, true);
  }
  template <std::integral T>
  [[nodiscard]] Result readLE(T& value) {
    return readInteger(value, false);
  }
  template <std::integral T>
  [[nodiscard]] Result writeBE(T value) {
    return writeInteger(static_cast<uint64_t>(value), sizeof(T), true);
  }
  template <std::integral T>
  [[nodiscard]] Result writeLE(T value) {
    return writeInteger(static_cast<uint64_t>(value), sizeof(T), false);
  }

 protected:
  Stream() = default;
  Stream(const Stream&) = default;
  Stream& operator=(const Stream&) = default;

 private:
  template <std::integral T>
  Result readInteger(T& value, bool bigEndian) {
    uint64_t bits = 0;
    const Result result = readBits(bits, sizeof(T), bigEndian);
    if (succeeded(result)) value = static_cast<T>(bits);
    return result;
  }
  Result readBits(uint64_t& bits, size_t size, bool bigEndian);
  Result writeInteger(uint64_t bits, size_t size, bool bigEndian);
};

}  // namespace qnc
