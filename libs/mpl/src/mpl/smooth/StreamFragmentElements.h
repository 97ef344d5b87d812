#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "mpl/smooth/StreamFragmentElement.h"

namespace SmoothStreaming {

// The fragment timeline of a stream in document order, 24 bytes for each "c" element. The
// StreamFragmentElement objects are made when asked for.
class StreamFragmentElements {
 public:
  struct Run {
    uint64_t time;
    uint64_t duration;
    uint32_t number;
    uint32_t repeats;
  };

  void reserve(size_t count) { runs_.reserve(count); }
  void append(StreamFragmentElement element);

  bool empty() const { return runs_.empty(); }
  size_t size() const { return runs_.size(); }
  std::shared_ptr<StreamFragmentElement> operator[](size_t index) const;
  // The same without the objects.
  const std::vector<Run>& runs() const { return runs_; }
  // All repeats together.
  uint64_t fragmentCount() const { return fragmentCount_; }

 private:
  std::vector<Run> runs_;
  std::vector<std::pair<size_t, SharedTrackFragments>> trackElements_;  // by index, where there are
  uint64_t fragmentCount_ = 0;
};

}  // namespace SmoothStreaming
