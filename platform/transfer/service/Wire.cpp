#include "platform/transfer/service/Wire.h"

#include <bit>
#include <limits>
#include <stdexcept>

namespace platform::service {

void WireWriter::real(double value) {
  u64(std::bit_cast<uint64_t>(value));
}

void WireWriter::text(std::string_view value) {
  if (value.size() > std::numeric_limits<uint32_t>::max()) throw std::length_error("text too long");
  u32(static_cast<uint32_t>(value.size()));
  bytes_.append(value);
}

uint64_t WireReader::get(size_t width) {
  if (failed_ || bytes_.size() - position_ < width) {
    failed_ = true;
    return 0;
  }
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i)
    value |= static_cast<uint64_t>(static_cast<uint8_t>(bytes_[position_ + i])) << (8 * i);
  position_ += width;
  return value;
}

bool WireReader::boolean() {
  const uint8_t value = u8();
  if (value > 1) failed_ = true;
  return value == 1;
}

double WireReader::real() {
  return std::bit_cast<double>(u64());
}

std::string WireReader::text() {
  const uint32_t size = u32();
  if (failed_ || bytes_.size() - position_ < size) {
    failed_ = true;
    return {};
  }
  std::string value(bytes_.substr(position_, size));
  position_ += size;
  return value;
}

uint32_t WireReader::count(size_t minimumBytes) {
  const uint32_t value = u32();
  if (failed_ || (bytes_.size() - position_) / minimumBytes < value) {
    failed_ = true;
    return 0;
  }
  return value;
}

}  // namespace platform::service
