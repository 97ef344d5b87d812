#include "qnc/streams/stream.h"

namespace qnc {

Result Stream::skip(uint64_t count) {
  return count > remaining() ? Result::EndOfFile : seek(position() + count);
}

Result Stream::readAll(void* data, size_t size) {
  if (size > remaining()) return Result::EndOfFile;
  return read(data, size) == size ? Result::Success : Result::IOError;
}

Result Stream::writeAll(const void* data, size_t size) {
  return write(data, size) == size ? Result::Success : Result::IOError;
}

Result Stream::readBits(uint64_t& bits, size_t size, bool bigEndian) {
  uint8_t bytes[sizeof(uint64_t)] = {};
  const Result result = readAll(bytes, size);
  if (failed(result)) return result;
  bits = 0;
  for (size_t i = 0; i < size; ++i)
    bits = bits << 8 | bytes[bigEndian ? i : size - 1 - i];
  return Result::Success;
}

Result Stream::writeInteger(uint64_t bits, size_t size, bool bigEndian) {
  uint8_t bytes[sizeof(uint64_t)] = {};
  for (size_t i = 0; i < size; ++i, bits >>= 8) {
    bytes[bigEndian ? size - 1 - i : i] = static_cast<uint8_t>(bits);
  }
  return writeAll(bytes, size);
}

}  // namespace qnc
