#pragma once

#include <cstdint>
#include <utility>

#include "mpl/smooth/Element.h"

namespace SmoothStreaming {

// What an "f" element says about one track of a fragment.
class TrackFragmentElement : public Element {
 public:
  explicit TrackFragmentElement(const qnc::xml::Element& element)
      : Element(element, kTrackFragmentElement),
        index_(getElementNumber<uint32_t>(element, kIndexShortAttr, true)),
        manifestOutputSample_(element.getText()) {}

  uint32_t index() const { return index_; }
  // The element's content, as given.
  const qnc::FastString& manifestOutputSample() const { return manifestOutputSample_; }

 private:
  friend class TrackFragmentElements;
  // As kept by a fragment.
  TrackFragmentElement(uint32_t index, qnc::FastString manifestOutputSample)
      : index_(index), manifestOutputSample_(std::move(manifestOutputSample)) {}

  uint32_t index_;
  qnc::FastString manifestOutputSample_;
};

}  // namespace SmoothStreaming
