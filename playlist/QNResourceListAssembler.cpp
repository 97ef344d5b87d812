#include "playlist/QNResourceListAssembler.h"

#include <algorithm>
#include <string>
#include <utility>

namespace {

// Blocks double from the one to the other: a list that merges to a few resources keeps little room
// that it does not use, a long one is made of large pieces.
constexpr size_t kSmallestBlock = 8;
constexpr size_t kLargestBlock = 1024;

}  // namespace

QNResourceListAssembler::QNResourceListAssembler(size_t expected, QNRangedURL::BaseURL baseURL)
    : expected_(expected), baseURL_(std::move(baseURL)), list_(std::make_shared<QNResourceList>()) {
  list_->reserve(expected_);
}

void QNResourceListAssembler::add(uint64_t offset, uint64_t length, std::string_view referenceURL) {
  if (block_) {
    QNRangedURL& last = block_->back();
    if (last.referenceURL() == referenceURL) return last.cover(offset, length);
  }
  if (!block_ || block_->size() == block_->capacity()) startBlock();
  block_->emplace_back(offset, length, std::string(referenceURL), baseURL_);
  list_->emplace_back(block_, &block_->back());
}

void QNResourceListAssembler::startBlock() {
  const size_t doubled = block_ ? block_->capacity() * 2 : kSmallestBlock;
  const size_t left = expected_ - std::min(expected_, list_->size());
  block_ = std::make_shared<Block>();
  block_->reserve(std::clamp(left, size_t{1}, std::min(doubled, kLargestBlock)));
}

QNResourceListPtr QNResourceListAssembler::finish() {
  if (list_->size() < list_->capacity() - list_->capacity() / 8) list_->shrink_to_fit();
  return std::move(list_);
}
