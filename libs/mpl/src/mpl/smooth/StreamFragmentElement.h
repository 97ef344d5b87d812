#pragma once

#include <cstdint>

#include "mpl/smooth/Element.h"
#include "mpl/smooth/TrackFragmentElements.h"

namespace SmoothStreaming {

// A "c" element: `repeats` fragments of the same duration, one after the other. Times are in the
// stream's time-scale units and saturate at the limits of 64 bits.
class StreamFragmentElement : public Element {
 public:
  // `previous` is the element before it in the same stream, or null; `next` the "c" element after
  // it, or empty. What the element does not state follows from these two; a number that is
  // malformed or does not fit counts as not stated. Throws std::runtime_error "Can't calculate
  // fragment time due to insufficient information" when neither "d" nor the next "t" tells the
  // duration.
  StreamFragmentElement(const qnc::xml::Element& element, const StreamFragmentElement* previous,
                        const qnc::xml::Element& next);

  uint32_t number() const { return number_; }
  uint64_t time() const { return time_; }
  uint64_t duration() const { return duration_; }
  uint32_t repeats() const { return repeats_; }  // at least 1
  const TrackFragmentElements& trackElements() const;

 private:
  friend class StreamFragmentElements;
  // As kept by a stream.
  StreamFragmentElement(uint32_t number, uint64_t time, uint64_t duration, uint32_t repeats,
                        SharedTrackFragments trackElements);

  uint32_t number_ = 0;
  uint32_t repeats_ = 1;
  uint64_t time_ = 0;
  uint64_t duration_ = 0;
  SharedTrackFragments trackElements_;
};

}  // namespace SmoothStreaming
