#include "mpl/smooth/StreamFragmentElements.h"

#include <algorithm>

#include "qnc/qncChecked.h"

namespace SmoothStreaming {

void StreamFragmentElements::append(StreamFragmentElement element) {
  if (element.trackElements_) {
    trackElements_.emplace_back(runs_.size(), std::move(element.trackElements_));
  }
  runs_.push_back(Run{element.time_, element.duration_, element.number_, element.repeats_});
  fragmentCount_ = qnc::saturatingAdd(fragmentCount_, uint64_t{element.repeats_});
}

std::shared_ptr<StreamFragmentElement> StreamFragmentElements::operator[](size_t index) const {
  const Run& run = runs_[index];
  const auto tracks = std::lower_bound(trackElements_.begin(), trackElements_.end(), index,
                                       [](const auto& entry, size_t i) { return entry.first < i; });
  const bool has = tracks != trackElements_.end() && tracks->first == index;
  return std::shared_ptr<StreamFragmentElement>(new StreamFragmentElement(
      run.number, run.time, run.duration, run.repeats, has ? tracks->second : nullptr));
}

}  // namespace SmoothStreaming
