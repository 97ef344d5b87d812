#include "engine/QNIndexSet.h"

#include <bit>

namespace {

constexpr size_t kBits = 64;

uint64_t bitOf(size_t index) {
  return uint64_t{1} << (index % kBits);
}

}  // namespace

QNIndexSet::QNIndexSet(size_t size, bool full) {
  size_t bits = size;
  do {
    const size_t words = (bits + kBits - 1) / kBits;
    levels_.emplace_back(words, full ? ~uint64_t{0} : 0);
    if (full && bits % kBits != 0) levels_.back().back() = bitOf(bits) - 1;
    bits = words;
  } while (bits > 1);
}

bool QNIndexSet::contains(size_t index) const {
  return (levels_[0][index / kBits] & bitOf(index)) != 0;
}

void QNIndexSet::insert(size_t index) {
  for (auto& level : levels_) {
    uint64_t& word = level[index / kBits];
    const bool known = word != 0;
    word |= bitOf(index);
    if (known) return;  // the levels above know already
    index /= kBits;
  }
}

void QNIndexSet::erase(size_t index) {
  for (auto& level : levels_) {
    uint64_t& word = level[index / kBits];
    word &= ~bitOf(index);
    if (word != 0) return;
    index /= kBits;
  }
}

size_t QNIndexSet::next(size_t from) const {
  // Up until a word has something at or after the place, then down along the lowest bits.
  size_t level = 0;
  size_t at = from;
  for (;; ++level) {
    if (level == levels_.size()) return none;
    const size_t word = at / kBits;
    if (word >= levels_[level].size()) return none;
    const uint64_t rest = levels_[level][word] & (~uint64_t{0} << (at % kBits));
    if (rest != 0) {
      at = word * kBits + static_cast<size_t>(std::countr_zero(rest));
      break;
    }
    at = word + 1;
  }
  while (level-- > 0)
    at = at * kBits + static_cast<size_t>(std::countr_zero(levels_[level][at]));
  return at;
}
