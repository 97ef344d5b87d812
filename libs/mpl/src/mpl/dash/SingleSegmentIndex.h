#pragma once

#include <utility>

#include "mpl/dash/SegmentIndex.h"

namespace mpl::dash {

// One segment, number 0, that is a whole resource and lasts as long as its period.
class SingleSegmentIndex : public SegmentIndex {
 public:
  explicit SingleSegmentIndex(RangedURI uri) : uri_(std::move(uri)) {}

  int64_t getSegmentNum(int64_t, int64_t) const override { return 0; }
  int64_t getSegmentDurationUs(int64_t, int64_t periodDurationUs) const override {
    return periodDurationUs;
  }
  int64_t getSegmentTimeUs(int64_t) const override { return 0; }
  int64_t getFirstSegmentNum() const override { return 0; }
  int64_t getLastSegmentNum(int64_t) const override { return 0; }
  bool isExplicit() const override { return true; }
  RangedURI getSegmentURL(int64_t) const override { return uri_; }

  int64_t getSegmentCount(int64_t) const override { return 1; }
  void forEachSegment(int64_t first, int64_t last, const SegmentVisitor& visitor) const override;

 private:
  const RangedURI uri_;
};

}  // namespace mpl::dash
