#pragma once

#include <cstdint>

#include "mpl/dash/MultiSegmentBase.h"

namespace mpl::dash {

// The segments of one Representation. Conventions, limits and errors are those of MultiSegmentBase.
class SegmentIndex {
 public:
  virtual ~SegmentIndex();

  virtual int64_t getSegmentNum(int64_t timeUs, int64_t periodDurationUs) const = 0;
  virtual int64_t getSegmentDurationUs(int64_t number, int64_t periodDurationUs) const = 0;
  virtual int64_t getSegmentTimeUs(int64_t number) const = 0;
  virtual int64_t getFirstSegmentNum() const = 0;
  virtual int64_t getLastSegmentNum(int64_t periodDurationUs) const = 0;
  virtual bool isExplicit() const = 0;
  virtual RangedURI getSegmentURL(int64_t number) const = 0;

  virtual int64_t getSegmentCount(int64_t periodDurationUs) const = 0;
  virtual void forEachSegment(int64_t first, int64_t last, const SegmentVisitor& visitor) const = 0;
};

}  // namespace mpl::dash
