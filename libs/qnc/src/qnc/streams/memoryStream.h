#pragma once

#include "qnc/qncByteArray.h"
#include "qnc/streams/stream.h"

namespace qnc {

// A stream over bytes of its own, which grow as they are written, or over a view, which is read
// only: writes to it are refused (0 bytes).
class MemoryStream : public Stream {
 public:
  MemoryStream() = default;
  explicit MemoryStream(ByteArray bytes) : bytes_(std::move(bytes)) {}
  // The bytes must outlive the stream.
  static MemoryStream overView(ByteArrayRef view);

  [[nodiscard]] size_t read(void* data, size_t size) override;
  // Overwrites from the position on and extends beyond the end.
  [[nodiscard]] size_t write(const void* data, size_t size) override;
  uint64_t position() const override { return position_; }
  uint64_t size() const override { return bytes().size(); }
  [[nodiscard]] Result seek(uint64_t position) override;

  ByteArrayRef bytes() const { return readOnly_ ? view_ : bytes_.ref(); }

 private:
  ByteArray bytes_;
  ByteArrayRef view_;
  bool readOnly_ = false;
  size_t position_ = 0;
};

}  // namespace qnc
