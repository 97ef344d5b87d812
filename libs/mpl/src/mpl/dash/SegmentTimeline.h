#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace mpl::dash {

// One segment of a timeline, in ticks.
struct SegmentTimelineElement {
  int64_t startTime = 0;
  int64_t duration = -1;

  bool operator==(const SegmentTimelineElement&) const = default;
};

// The segments of a SegmentTimeline, as a sequence of SegmentTimelineElement. Held as one run for
// each S element, so that a repeat count costs nothing: 16 bytes, and 8 more each once one repeats.
// Start times that 64 bits cannot hold stay at the nearest value they can.
class SegmentTimeline {
 public:
  class Cursor;

  bool empty() const { return size_ == 0; }
  uint64_t size() const { return size_; }
  // Logarithmic in the number of runs. `index` is below size().
  SegmentTimelineElement operator[](uint64_t index) const;
  // From element `index` on.
  Cursor cursor(uint64_t index = 0) const;

  void reserve(size_t runs) { runs_.reserve(runs); }
  // `count` segments one after the other. Returns the start time of what follows them.
  int64_t append(int64_t startTime, int64_t duration, uint64_t count);

  size_t runCount() const { return runs_.size(); }
  bool operator==(const SegmentTimeline&) const = default;

 private:
  struct Run {
    int64_t startTime;
    int64_t duration;

    bool operator==(const Run&) const = default;
    SegmentTimelineElement at(uint64_t repeat) const;
  };
  size_t runOf(uint64_t index) const;
  uint64_t firstOf(size_t run) const { return firsts_.empty() ? run : firsts_[run]; }
  uint64_t endOf(size_t run) const { return run + 1 < runs_.size() ? firstOf(run + 1) : size_; }

  std::vector<Run> runs_;
  std::vector<uint64_t> firsts_;  // index of each run's first segment; empty while none repeats
  uint64_t size_ = 0;
};

// Walks a timeline in order, each step in constant time. Valid while the timeline lives unchanged.
class SegmentTimeline::Cursor {
 public:
  bool atEnd() const { return index_ == timeline_->size(); }
  uint64_t index() const { return index_; }
  SegmentTimelineElement operator*() const { return timeline_->runs_[run_].at(index_ - first_); }
  Cursor& operator++() {
    if (++index_ == end_) enterRun(run_ + 1, end_);
    return *this;
  }

 private:
  friend class SegmentTimeline;
  Cursor(const SegmentTimeline* timeline, uint64_t index, size_t run)
      : timeline_(timeline), index_(index) {
    enterRun(run, run < timeline->runCount() ? timeline->firstOf(run) : index);
  }
  void enterRun(size_t run, uint64_t first) {
    run_ = run;
    first_ = first;
    end_ = timeline_->endOf(run);
  }

  const SegmentTimeline* timeline_;
  uint64_t index_;
  size_t run_ = 0;
  uint64_t first_ = 0;  // of the run, and the end of it
  uint64_t end_ = 0;
};

}  // namespace mpl::dash
