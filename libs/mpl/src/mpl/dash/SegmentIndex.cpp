#include "mpl/dash/SegmentIndex.h"

namespace mpl::dash {

SegmentIndex::~SegmentIndex() = default;

}  // namespace mpl::dash
