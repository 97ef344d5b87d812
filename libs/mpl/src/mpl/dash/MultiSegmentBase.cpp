#include "mpl/dash/MultiSegmentBase.h"

#include <algorithm>
#include <utility>

#include "mpl/Exception.h"
#include "mpl/Numbers.h"
#include "mpl/dash/Scale.h"
#include "qnc/qncChecked.h"

namespace mpl::dash {

namespace {

constexpr int64_t kMicroseconds = 1000000;

SharedTimeline orEmpty(SharedTimeline timeline) {
  static const SharedTimeline empty = std::make_shared<const SegmentTimeline>();
  if (!timeline) return empty;
  return timeline;
}

}  // namespace

MultiSegmentBase::MultiSegmentBase(MultiSegmentInfo info)
    : SegmentBase(std::move(info.initialization), info.timescale, info.presentationTimeOffset),
      startNumber_(info.startNumber),
      duration_(info.duration),
      timeline_(orEmpty(std::move(info.timeline))) {}

void MultiSegmentBase::throwOutOfRange() {
  throw InvalidArgumentException("Segment number out of range");
}

uint64_t MultiSegmentBase::timelineIndex(int64_t number) const {
  int64_t index = 0;
  if (!qnc::checkedSub(number, int64_t{startNumber_}, index) || index < 0 ||
      static_cast<uint64_t>(index) >= timeline_->size()) {
    throwOutOfRange();
  }
  return static_cast<uint64_t>(index);
}

int64_t MultiSegmentBase::ticksBefore(int64_t number) const {
  return qnc::saturatingMul(qnc::saturatingSub<int64_t>(number, startNumber_), duration_);
}

int64_t MultiSegmentBase::segmentDurationUs() const {
  return mulDiv(duration_, kMicroseconds, timescale());
}

int64_t MultiSegmentBase::getSegmentTimeUs(int64_t number) const {
  const int64_t ticks = isExplicit()
                            ? qnc::saturatingSub((*timeline_)[timelineIndex(number)].startTime,
                                                 presentationTimeOffset())
                            : ticksBefore(number);
  return scaleLargeTimestamp(ticks, kMicroseconds, timescale());
}

int64_t MultiSegmentBase::getSegmentDurationUs(int64_t number, int64_t periodDurationUs) const {
  if (isExplicit()) {
    return mulDiv((*timeline_)[timelineIndex(number)].duration, kMicroseconds, timescale());
  }
  if (number == getLastSegmentNum(periodDurationUs)) {
    return qnc::saturatingSub(periodDurationUs, getSegmentTimeUs(number));
  }
  return segmentDurationUs();
}

int64_t MultiSegmentBase::getSegmentNum(int64_t timeUs, int64_t periodDurationUs) const {
  const int64_t first = getFirstSegmentNum();
  const int64_t last = getLastSegmentNum(periodDurationUs);
  if (isExplicit()) {
    int64_t low = first;
    // A list may have more segments than its timeline has times.
    int64_t high = std::min(last, clamped(static_cast<Int128>(first) + timeline_->size() - 1));
    while (low <= high) {
      const int64_t mid = (low + high) / 2;
      const int64_t time = getSegmentTimeUs(mid);
      if (time == timeUs) return mid;
      if (time < timeUs) {
        low = mid + 1;
      } else {
        high = mid - 1;
      }
    }
    return low == first ? low : high;
  }
  const int64_t segmentUs = segmentDurationUs();
  const int64_t offset = segmentUs == 0 ? 0 : clamped(static_cast<Int128>(timeUs) / segmentUs);
  const int64_t number = qnc::saturatingAdd<int64_t>(startNumber_, offset);
  if (number < first) return first;
  if (last != -1 && number > last) return last;
  return number;
}

int64_t MultiSegmentBase::getSegmentCount(int64_t periodDurationUs) const {
  if (periodDurationUs == -1 && countDependsOnPeriod()) return 0;
  const Int128 count =
      static_cast<Int128>(getLastSegmentNum(periodDurationUs)) - getFirstSegmentNum() + 1;
  return count > 0 ? clamped(count) : 0;
}

}  // namespace mpl::dash
