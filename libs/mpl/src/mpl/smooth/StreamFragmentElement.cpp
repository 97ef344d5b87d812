#include "mpl/smooth/StreamFragmentElement.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "qnc/qncChecked.h"

namespace SmoothStreaming {

namespace {

uint64_t durationUntil(const qnc::xml::Element& next, uint64_t time) {
  uint64_t nextTime = 0;
  if (!qnc::parseDecimal(next.attribute(kTimestampShortAttr), nextTime)) {
    throw std::runtime_error("Can't calculate fragment time due to insufficient information");
  }
  return qnc::saturatingSub(nextTime, time);
}

SharedTrackFragments readTrackFragments(const qnc::xml::Element& element) {
  std::shared_ptr<TrackFragmentElements> fragments;
  for (const auto& child : element.children()) {
    if (child.localName() != kTrackFragmentElement) continue;
    if (!fragments) fragments = std::make_shared<TrackFragmentElements>();
    fragments->append(TrackFragmentElement(child));
  }
  return fragments;
}

}  // namespace

StreamFragmentElement::StreamFragmentElement(const qnc::xml::Element& element,
                                             const StreamFragmentElement* previous,
                                             const qnc::xml::Element& next)
    : Element(element, kStreamFragmentElement) {
  if (!qnc::parseDecimal(element.attribute(kNumberShortAttr), number_) && previous) {
    number_ = qnc::saturatingAdd<uint32_t>(previous->number_, 1);
  }
  if (!qnc::parseDecimal(element.attribute(kTimestampShortAttr), time_) && previous) {
    time_ = qnc::saturatingAdd(
        previous->time_, qnc::saturatingMul(previous->duration_, uint64_t{previous->repeats_}));
  }
  if (!qnc::parseDecimal(element.attribute(kDurationShortAttr), duration_)) {
    duration_ = durationUntil(next, time_);
  }
  int32_t repeats = 1;
  (void)!qnc::parseDecimal(element.attribute(kRepeatShortAttr), repeats);
  repeats_ = static_cast<uint32_t>(std::max(repeats, 1));
  trackElements_ = readTrackFragments(element);
}

StreamFragmentElement::StreamFragmentElement(uint32_t number, uint64_t time, uint64_t duration,
                                             uint32_t repeats, SharedTrackFragments trackElements)
    : number_(number),
      repeats_(repeats),
      time_(time),
      duration_(duration),
      trackElements_(std::move(trackElements)) {}

const TrackFragmentElements& StreamFragmentElement::trackElements() const {
  static const TrackFragmentElements none;
  return trackElements_ ? *trackElements_ : none;
}

}  // namespace SmoothStreaming
