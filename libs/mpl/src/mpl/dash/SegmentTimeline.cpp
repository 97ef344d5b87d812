#include "mpl/dash/SegmentTimeline.h"

#include <algorithm>

#include "mpl/Numbers.h"

namespace mpl::dash {

SegmentTimelineElement SegmentTimeline::Run::at(uint64_t repeat) const {
  return {clamped(static_cast<Int128>(duration) * repeat + startTime), duration};
}

size_t SegmentTimeline::runOf(uint64_t index) const {
  if (firsts_.empty()) return index;
  const auto after = std::upper_bound(firsts_.begin(), firsts_.end(), index);
  return static_cast<size_t>(after - firsts_.begin()) - 1;
}

SegmentTimelineElement SegmentTimeline::operator[](uint64_t index) const {
  const size_t run = runOf(index);
  return runs_[run].at(index - firstOf(run));
}

SegmentTimeline::Cursor SegmentTimeline::cursor(uint64_t index) const {
  return Cursor(this, index, index < size_ ? runOf(index) : runs_.size());
}

int64_t SegmentTimeline::append(int64_t startTime, int64_t duration, uint64_t count) {
  if (count == 0) return startTime;
  if (count > 1 || !firsts_.empty()) {
    if (firsts_.empty()) firsts_.reserve(runs_.capacity());
    for (size_t run = firsts_.size(); run < runs_.size(); ++run)
      firsts_.push_back(run);
    firsts_.push_back(size_);
  }
  runs_.push_back(Run{startTime, duration});
  size_ += count;
  return runs_.back().at(count).startTime;
}

}  // namespace mpl::dash
