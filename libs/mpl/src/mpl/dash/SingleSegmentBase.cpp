#include "mpl/dash/SingleSegmentBase.h"

#include <utility>

namespace mpl::dash {

SingleSegmentBase::SingleSegmentBase(SharedURI initialization, int64_t timescale,
                                     int64_t presentationTimeOffset, SharedBase uri,
                                     int64_t indexStart, int64_t indexEnd)
    : SegmentBase(std::move(initialization), timescale, presentationTimeOffset),
      uri_(std::move(uri)),
      indexStart_(indexStart),
      indexEnd_(indexEnd) {}

SingleSegmentBase::SingleSegmentBase(SharedBase uri)
    : SingleSegmentBase(nullptr, 1, 0, std::move(uri), 0, Range::kToEnd) {}

RangedURI SingleSegmentBase::getIndex() const {
  const int64_t length = indexEnd_ < indexStart_ ? Range::kToEnd : indexEnd_ - indexStart_ + 1;
  return RangedURI(FastString(), uri_, Range{indexStart_, length});
}

}  // namespace mpl::dash
