#include "platform/transfer/service/FrameReader.h"

#include <cerrno>

#include <sys/socket.h>

#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/Wire.h"

namespace platform::service {
namespace {

constexpr size_t kLengthSize = 4;

}  // namespace

bool FrameReader::fill(int fd, size_t count) {
  if (position_ > 0) {
    buffer_.erase(0, position_);
    position_ = 0;
  }
  const size_t size = buffer_.size();
  buffer_.resize(size + count);
  ssize_t got = 0;
  do {
    got = ::recv(fd, buffer_.data() + size, count, 0);
  } while (got < 0 && errno == EINTR);
  buffer_.resize(size + (got > 0 ? static_cast<size_t>(got) : 0));
  return got > 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
}

std::optional<std::string_view> FrameReader::next() {
  const std::string_view rest = std::string_view(buffer_).substr(position_);
  if (failed_ || rest.size() < kLengthSize) return std::nullopt;
  const uint32_t length = WireReader(rest).u32();
  if (length == 0 || length > kMaximumFrame) {
    failed_ = true;
    return std::nullopt;
  }
  if (rest.size() - kLengthSize < length) return std::nullopt;
  position_ += kLengthSize + length;
  return rest.substr(kLengthSize, length);
}

size_t FrameReader::missing() const {
  const std::string_view rest = std::string_view(buffer_).substr(position_);
  if (rest.size() < kLengthSize) return kLengthSize - rest.size();
  const size_t length = WireReader(rest).u32();
  return length + kLengthSize > rest.size() ? length + kLengthSize - rest.size() : 1;
}

}  // namespace platform::service
