#pragma once

#include "qnc/streams/stream.h"

namespace qnc {

// Takes every byte, keeps none and counts them. It is always at its end: reads give nothing and it
// cannot be moved.
class NullStream : public Stream {
 public:
  [[nodiscard]] size_t read(void* data, size_t size) override;
  [[nodiscard]] size_t write(const void* data, size_t size) override;
  uint64_t position() const override { return count_; }
  uint64_t size() const override { return count_; }
  [[nodiscard]] Result seek(uint64_t position) override;

 private:
  uint64_t count_ = 0;
};

}  // namespace qnc
