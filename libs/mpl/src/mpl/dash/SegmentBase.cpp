#include "mpl/dash/SegmentBase.h"

#include <utility>

#include "mpl/dash/Scale.h"

namespace mpl::dash {

SegmentBase::SegmentBase(RangedURI initialization, int64_t timescale,
                         int64_t presentationTimeOffset)
    : initialization_(std::move(initialization)),
      timescale_(timescale),
      presentationTimeOffset_(presentationTimeOffset) {}

SegmentBase::~SegmentBase() = default;

RangedURI SegmentBase::getInitialization(const Representation&) const {
  return initialization_;
}

int64_t SegmentBase::getPresentationTimeOffsetUs() const {
  return scaleLargeTimestamp(presentationTimeOffset_, 1000000, timescale_);
}

}  // namespace mpl::dash
