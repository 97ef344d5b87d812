#include "qnc/qncUUID.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "qnc/streams/stream.h"

namespace qnc {

Uuid::Uuid(const void* bytes, size_t length) {
  if (length > 0) std::memcpy(bytes_.data(), bytes, std::min(length, kSize));
}

Uuid::Uuid(std::string_view text) {
  if (text.starts_with("0x")) text.remove_prefix(2);
  size_t filled = 0;
  for (const FastString& piece : FastString(text).split('-')) {
    for (const uint8_t byte : ByteArray::fromHex(piece)) {
      if (filled < kSize) bytes_[filled++] = byte;
    }
  }
}

Uuid Uuid::generateRandom() {
  std::random_device device("/dev/urandom");
  Uuid uuid;
  for (uint8_t& byte : uuid.bytes_)
    byte = static_cast<uint8_t>(device() & 0xFF);
  return uuid;
}

FastString Uuid::toString() const {
  std::string text = ByteArrayRef(bytes_.data(), kSize).toHex().str();
  for (const size_t hyphen : {8, 13, 18, 23})
    text.insert(hyphen, 1, '-');
  return FastString(std::move(text));
}

FastString Uuid::toHEX() const {
  return ByteArrayRef(bytes_.data(), kSize).toHEX();
}

Uuid Uuid::playreadyToCenc() const {
  Uuid cenc = *this;
  std::reverse(cenc.bytes_.begin(), cenc.bytes_.begin() + 4);
  std::swap(cenc.bytes_[4], cenc.bytes_[5]);
  std::swap(cenc.bytes_[6], cenc.bytes_[7]);
  return cenc;
}

Result Uuid::readFromStream(Stream& stream) {
  std::array<uint8_t, kSize> bytes{};
  const Result result = stream.readAll(bytes.data(), kSize);
  if (succeeded(result)) bytes_ = bytes;
  return result;
}

Result Uuid::writeToStream(Stream& stream) const {
  return stream.writeAll(bytes_.data(), kSize);
}

}  // namespace qnc
