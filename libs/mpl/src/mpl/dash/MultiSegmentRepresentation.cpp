#include "mpl/dash/MultiSegmentRepresentation.h"

#include <utility>

namespace mpl::dash {

MultiSegmentRepresentation::MultiSegmentRepresentation(qnc::FastString id, int32_t revisionId,
                                                       Format format,
                                                       std::shared_ptr<const MultiSegmentBase> base)
    : Representation(std::move(id), revisionId, std::move(format)), base_(std::move(base)) {}

int64_t MultiSegmentRepresentation::getSegmentNum(int64_t timeUs, int64_t periodDurationUs) const {
  return base_->getSegmentNum(timeUs, periodDurationUs);
}

int64_t MultiSegmentRepresentation::getSegmentDurationUs(int64_t number,
                                                         int64_t periodDurationUs) const {
  return base_->getSegmentDurationUs(number, periodDurationUs);
}

int64_t MultiSegmentRepresentation::getSegmentTimeUs(int64_t number) const {
  return base_->getSegmentTimeUs(number);
}

int64_t MultiSegmentRepresentation::getFirstSegmentNum() const {
  return base_->getFirstSegmentNum();
}

int64_t MultiSegmentRepresentation::getLastSegmentNum(int64_t periodDurationUs) const {
  return base_->getLastSegmentNum(periodDurationUs);
}

bool MultiSegmentRepresentation::isExplicit() const {
  return base_->isExplicit();
}

RangedURI MultiSegmentRepresentation::getSegmentURL(int64_t number) const {
  return base_->getSegmentURL(*this, number);
}

int64_t MultiSegmentRepresentation::getSegmentCount(int64_t periodDurationUs) const {
  return base_->getSegmentCount(periodDurationUs);
}

void MultiSegmentRepresentation::forEachSegment(int64_t first, int64_t last,
                                                const SegmentVisitor& visitor) const {
  base_->forEachSegment(*this, first, last, visitor);
}

}  // namespace mpl::dash
