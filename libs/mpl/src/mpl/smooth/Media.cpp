#include "mpl/smooth/Media.h"

namespace SmoothStreaming {

namespace {

constexpr char kDefaultTimeScale[] = "10000000";

}  // namespace

Media::Media(const qnc::xml::Element& element) : Element(element, kSmoothStreamingMedia) {
  version_.first = getElementNumber<int32_t>(element, kMajorVersionAttr);
  version_.second = getElementNumber<int32_t>(element, kMinorVersionAttr);
  timeScale_ = getElementNumber<uint64_t>(element, kTimeScaleAttr, true, kDefaultTimeScale);
  duration_ = getElementNumber<uint64_t>(element, kDurationAttr);
  isLive_ = getElementAttribute(element, kIsLiveAttr, true) == kTrueValue;
  lookaheadCount_ = getElementNumber<uint32_t>(element, kLookaheadCountAttr, true);
  dvrWindowLength_ = getElementNumber<uint64_t>(element, kDVRWindowLengthAttr, true);
  for (const auto& child : element.children()) {
    if (child.localName() == kStreamElement) {
      streamElements_.push_back(StreamElement::create(child));
    } else if (child.localName() == kProtectionElement && !protection_) {
      protection_ = std::make_shared<Protection>(child);
    }
  }
  Element::letGo();
  for (const auto& stream : streamElements_)
    stream->letGo();
  if (protection_) protection_->letGo();
}

}  // namespace SmoothStreaming
