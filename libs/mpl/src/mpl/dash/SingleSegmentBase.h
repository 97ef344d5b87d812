#pragma once

#include <cstdint>

#include "mpl/dash/SegmentBase.h"

namespace mpl::dash {

// One resource that is a single segment, perhaps with an index of its parts.
class SingleSegmentBase : public SegmentBase {
 public:
  // `indexStart` and `indexEnd` are the first and last byte of the segment index; an end of -1
  // reaches to the end of the resource, (0, -1) is no index range at all.
  SingleSegmentBase(SharedURI initialization, int64_t timescale, int64_t presentationTimeOffset,
                    SharedBase uri, int64_t indexStart, int64_t indexEnd);
  // The whole of a resource.
  explicit SingleSegmentBase(SharedBase uri);

  Type type() const override { return Type::Single; }

  // The resolved URL of the media.
  FastString uri() const { return uri_ ? uri_->resolve() : FastString(); }
  const SharedBase& sharedURI() const { return uri_; }
  int64_t indexStart() const { return indexStart_; }
  int64_t indexEnd() const { return indexEnd_; }
  bool hasIndexRange() const { return indexStart_ != 0 || indexEnd_ != Range::kToEnd; }
  // The index range of the media.
  RangedURI getIndex() const;

 private:
  const SharedBase uri_;
  const int64_t indexStart_;
  const int64_t indexEnd_;
};

}  // namespace mpl::dash
