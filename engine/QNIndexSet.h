#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Export.h"

// An ordered set of the numbers 0 ... size-1: a bit each, and a bit for every 64 of them, and so on
// up. Every operation costs the number of levels (four for 16 million), whatever is in it.
class QN_EXPORT QNIndexSet {
 public:
  static constexpr size_t none = SIZE_MAX;

  QNIndexSet() = default;
  explicit QNIndexSet(size_t size, bool full = false);

  bool contains(size_t index) const;
  void insert(size_t index);
  void erase(size_t index);
  void assign(size_t index, bool present) { present ? insert(index) : erase(index); }
  // The lowest member that is at least `from`, `none` when there is no such.
  size_t next(size_t from) const;
  size_t first() const { return next(0); }
  bool empty() const { return first() == none; }

 private:
  std::vector<std::vector<uint64_t>> levels_;  // [0] the members, each level sums up the one below
};
