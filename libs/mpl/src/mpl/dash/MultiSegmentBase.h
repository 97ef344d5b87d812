#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "mpl/dash/SegmentBase.h"
#include "mpl/dash/SegmentTimeline.h"

namespace mpl::dash {

using SharedTimeline = std::shared_ptr<const SegmentTimeline>;

// One listed segment; the text lives for the call that shows it.
struct ListedSegment {
  int64_t number = 0;
  std::string_view uri;  // resolved
  Range range;
};
using SegmentVisitor = std::function<void(const ListedSegment&)>;

// What all segments of a MultiSegmentBase have in common.
struct MultiSegmentInfo {
  SharedURI initialization;            // null is none
  int64_t timescale = 1;               // ticks per second
  int64_t presentationTimeOffset = 0;  // ticks
  int32_t startNumber = 1;
  int64_t duration = -1;    // of a segment in ticks; -1 absent
  SharedTimeline timeline;  // null is empty
};

// Segments that are counted from a first number on: a list, or a template with a timeline or a
// fixed duration. Times named Us are microseconds; -1 is an unknown period duration.
//
// A number for which there is no segment throws InvalidArgumentException "Segment number out of
// range". Arithmetic saturates at the limits of 64 bits; what divides by a timescale of 0 is 0.
class MultiSegmentBase : public SegmentBase {
 public:
  explicit MultiSegmentBase(MultiSegmentInfo info);

  Type type() const override { return Type::Multi; }

  // The segment that plays at a time, or the nearest.
  virtual int64_t getSegmentNum(int64_t timeUs, int64_t periodDurationUs) const;
  // Without a timeline the last segment lasts to the end of the period.
  virtual int64_t getSegmentDurationUs(int64_t number, int64_t periodDurationUs) const;
  // Without a timeline the presentation time offset is not subtracted.
  virtual int64_t getSegmentTimeUs(int64_t number) const;
  virtual int64_t getFirstSegmentNum() const { return startNumber_; }
  // -1 when it depends on an unknown period duration; below the first when there is no segment.
  virtual int64_t getLastSegmentNum(int64_t periodDurationUs) const = 0;
  virtual bool isExplicit() const { return !timeline_->empty(); }
  virtual RangedURI getSegmentURL(const Representation& representation, int64_t number) const = 0;

  // How many segments lie between the first and the last number; costs no listing.
  int64_t getSegmentCount(int64_t periodDurationUs) const;
  // Shows the segments first...last in order, each in constant time; what getSegmentURL gives,
  // resolved. Nothing when last lies below first. An exception of the visitor ends it.
  virtual void forEachSegment(const Representation& representation, int64_t first, int64_t last,
                              const SegmentVisitor& visitor) const = 0;

  int32_t startNumber() const { return startNumber_; }
  int64_t duration() const { return duration_; }
  const SegmentTimeline& segmentTimeline() const { return *timeline_; }
  const SharedTimeline& sharedTimeline() const { return timeline_; }

 protected:
  // The timeline index of a number.
  uint64_t timelineIndex(int64_t number) const;
  // Ticks since the first segment, without a timeline.
  int64_t ticksBefore(int64_t number) const;
  int64_t segmentDurationUs() const;
  [[noreturn]] static void throwOutOfRange();

 private:
  // Whether the number of segments follows from the duration of the period.
  virtual bool countDependsOnPeriod() const = 0;

  const int32_t startNumber_;
  const int64_t duration_;
  const SharedTimeline timeline_;
};

}  // namespace mpl::dash
