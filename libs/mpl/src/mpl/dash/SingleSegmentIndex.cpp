#include "mpl/dash/SingleSegmentIndex.h"

namespace mpl::dash {

void SingleSegmentIndex::forEachSegment(int64_t first, int64_t last,
                                        const SegmentVisitor& visitor) const {
  if (first > 0 || last < 0) return;
  visitor(ListedSegment{0, uri_.resolve(), uri_.range()});
}

}  // namespace mpl::dash
