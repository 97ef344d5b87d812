#pragma once

#include <cstdint>
#include <memory>

#include "mpl/dash/MultiSegmentBase.h"
#include "mpl/dash/Representation.h"
#include "mpl/dash/SegmentIndex.h"

namespace mpl::dash {

// A Representation of many segments. It is its own segment index: the queries go to the segment
// description.
class MultiSegmentRepresentation : public Representation, public SegmentIndex {
 public:
  MultiSegmentRepresentation(qnc::FastString id, int32_t revisionId, Format format,
                             std::shared_ptr<const MultiSegmentBase> base);

  SegmentBase::Type type() const override { return SegmentBase::Type::Multi; }
  const MultiSegmentBase& segmentBase() const override { return *base_; }
  std::optional<RangedURI> getIndexURI() const override { return std::nullopt; }
  const SegmentIndex& getIndex() const override { return *this; }

  int64_t getSegmentNum(int64_t timeUs, int64_t periodDurationUs) const override;
  int64_t getSegmentDurationUs(int64_t number, int64_t periodDurationUs) const override;
  int64_t getSegmentTimeUs(int64_t number) const override;
  int64_t getFirstSegmentNum() const override;
  int64_t getLastSegmentNum(int64_t periodDurationUs) const override;
  bool isExplicit() const override;
  RangedURI getSegmentURL(int64_t number) const override;
  int64_t getSegmentCount(int64_t periodDurationUs) const override;
  void forEachSegment(int64_t first, int64_t last, const SegmentVisitor& visitor) const override;

 private:
  const std::shared_ptr<const MultiSegmentBase> base_;
};

}  // namespace mpl::dash
