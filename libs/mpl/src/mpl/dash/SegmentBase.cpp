#include "mpl/dash/SegmentBase.h"

#include <utility>

#include "mpl/dash/Scale.h"

namespace mpl::dash {

namespace {

SharedURI orEmpty(SharedURI uri) {
  static const SharedURI empty = std::make_shared<const RangedURI>();
  if (!uri) return empty;
  return uri;
}

}  // namespace

SegmentBase::SegmentBase(SharedURI initialization, int64_t timescale,
                         int64_t presentationTimeOffset)
    : initialization_(orEmpty(std::move(initialization))),
      timescale_(timescale),
      presentationTimeOffset_(presentationTimeOffset) {}

SegmentBase::~SegmentBase() = default;

RangedURI SegmentBase::getInitialization(const Representation&) const {
  return *initialization_;
}

int64_t SegmentBase::getPresentationTimeOffsetUs() const {
  return scaleLargeTimestamp(presentationTimeOffset_, 1000000, timescale_);
}

}  // namespace mpl::dash
