#include "mpl/dash/SegmentTimeline.h"

#include <algorithm>

#include "mpl/Numbers.h"

namespace mpl::dash {

SegmentTimelineElement SegmentTimeline::Run::at(uint64_t index) const {
  return {clamped(static_cast<Int128>(duration) * (index - first) + startTime), duration};
}

size_t SegmentTimeline::runOf(uint64_t index) const {
  if (runs_.size() == size_) return index;  // no run repeats
  const auto after = std::upper_bound(runs_.begin(), runs_.end(), index,
                                      [](uint64_t i, const Run& run) { return i < run.first; });
  return static_cast<size_t>(after - runs_.begin()) - 1;
}

SegmentTimelineElement SegmentTimeline::operator[](uint64_t index) const {
  return runs_[runOf(index)].at(index);
}

SegmentTimeline::Cursor SegmentTimeline::cursor(uint64_t index) const {
  return Cursor(this, index, index < size_ ? runOf(index) : runs_.size());
}

int64_t SegmentTimeline::append(int64_t startTime, int64_t duration, uint64_t count) {
  if (count == 0) return startTime;
  const Run run{startTime, duration, size_};
  runs_.push_back(run);
  size_ += count;
  return run.at(size_).startTime;
}

}  // namespace mpl::dash
