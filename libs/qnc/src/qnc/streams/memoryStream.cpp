#include "qnc/streams/memoryStream.h"

#include <algorithm>
#include <cstring>

namespace qnc {

MemoryStream MemoryStream::overView(ByteArrayRef view) {
  MemoryStream stream;
  stream.view_ = view;
  stream.readOnly_ = true;
  return stream;
}

size_t MemoryStream::read(void* data, size_t size) {
  const ByteArrayRef part = bytes().subRef(position_, size);
  if (!part.empty()) std::memcpy(data, part.data(), part.size());
  position_ += part.size();
  return part.size();
}

size_t MemoryStream::write(const void* data, size_t size) {
  if (readOnly_ || size == 0) return 0;
  if (bytes_.size() - position_ < size) bytes_.resize(position_ + size);
  std::memcpy(bytes_.data() + position_, data, size);
  position_ += size;
  return size;
}

Result MemoryStream::seek(uint64_t position) {
  if (position > size()) return Result::OutOfRange;
  position_ = static_cast<size_t>(position);
  return Result::Success;
}

}  // namespace qnc
