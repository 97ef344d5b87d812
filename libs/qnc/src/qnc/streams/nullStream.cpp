#include "qnc/streams/nullStream.h"

namespace qnc {

size_t NullStream::read(void*, size_t) {
  return 0;
}

size_t NullStream::write(const void*, size_t size) {
  count_ += size;
  return size;
}

Result NullStream::seek(uint64_t position) {
  return position == count_ ? Result::Success : Result::OutOfRange;
}

}  // namespace qnc
