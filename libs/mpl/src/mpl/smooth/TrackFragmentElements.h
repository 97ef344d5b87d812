#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mpl/smooth/TrackFragmentElement.h"

namespace SmoothStreaming {

// The "f" elements of a fragment in document order, 8 bytes and its text for each: four bytes of a
// hostile manifest make one. The TrackFragmentElement objects are made when asked for.
class TrackFragmentElements {
 public:
  void append(const TrackFragmentElement& element);

  bool empty() const { return records_.empty(); }
  size_t size() const { return records_.size(); }
  std::shared_ptr<TrackFragmentElement> operator[](size_t index) const;

 private:
  struct Record {
    uint32_t index;
    uint32_t textEnd;  // in text_; a document has less than 4 GiB
  };

  std::vector<Record> records_;
  std::string text_;
};

// Null stands for none, which is the rule.
using SharedTrackFragments = std::shared_ptr<const TrackFragmentElements>;

}  // namespace SmoothStreaming
