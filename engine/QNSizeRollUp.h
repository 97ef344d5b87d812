#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/QNDownloadTypes.h"
#include "platform/Exception.h"

// Sums of sizes that manifests and servers state: whatever they say, the arithmetic is defined, and
// what was added can be taken away again.
inline int64_t QNSumOfSizes(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
inline int64_t QNDifferenceOfSizes(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

// Moves an owner's sum of known sizes, and the counts of known and estimated ones, from a child's
// old size to its new one; a quality rolls up its resources so, and a set its qualities. `limit` is
// how many children there are. Returns whether anything changed.
inline bool QNRollUpSize(QNDownloadSize& sum, size_t& numSized, size_t& numEstimated, size_t limit,
                         QNDownloadSize oldSize, QNDownloadSize newSize) {
  using platform::assertThat;
  if (QNDownloadSizeIsEqual(oldSize, newSize)) return false;
  if (!QNDownloadSizeIsUnknown(oldSize)) {
    sum.value = QNDifferenceOfSizes(sum.value, oldSize.value);
    if (oldSize.estimated) {
      assertThat(numEstimated > 0, "Underflow in estimated resources counter");
      --numEstimated;
      sum.estimated = numEstimated != 0;
    }
    assertThat(numSized > 0, "Underflow in sized resources counter");
    --numSized;
  }
  if (QNDownloadSizeIsUnknown(newSize)) return true;
  // The first size that becomes known replaces "unknown"; it is not added to it.
  sum.value = numSized == 0 ? newSize.value : QNSumOfSizes(sum.value, newSize.value);
  assertThat(numSized < limit, "Overflow in sized resources counter");
  ++numSized;
  if (newSize.estimated) {
    assertThat(numEstimated < numSized, "Overflow in estimated resources counter");
    ++numEstimated;
    sum.estimated = true;
  }
  return true;
}
