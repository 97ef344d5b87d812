#include "mpl/smooth/TrackElement.h"

#include <string>
#include <utility>

namespace SmoothStreaming {

namespace {

qnc::FastString adjustedFourCC(std::string text) {
  if (!text.empty()) text.resize(4, '\0');
  return qnc::FastString(std::move(text));
}

}  // namespace

TrackElement::TrackElement(const qnc::xml::Element& element,
                           std::weak_ptr<StreamElement> parentStream, Stream::Type type)
    : Element(element, kTrackElement), parentStream_(std::move(parentStream)), type_(type) {
  const bool notVideo = type != Stream::Type::Video;
  const bool notAudio = type != Stream::Type::Audio;
  const bool isText = type == Stream::Type::Text;
  const auto number = [&element](const char* name, bool optional,
                                 const char* defaultValue = kZeroValue) {
    return getElementNumber<uint32_t>(element, name, optional, defaultValue);
  };
  index_ = number(kIndexAttr, true);
  bitrate_ = number(kBitrateAttr, false);
  maxWidth_ = number(kMaxWidthAttr, notVideo);
  maxHeight_ = number(kMaxHeightAttr, notVideo);
  samplingRate_ = number(kSamplingRateAttr, notAudio);
  audioTag_ = number(kAudioTagAttr, notAudio);
  bitsPerSample_ = number(kBitsPerSampleAttr, notAudio);
  packetSize_ = number(kPacketSizeAttr, notAudio);
  channels_ = number(kChannelsAttr, notAudio);
  codecPrivateData_ =
      qnc::ByteArray::fromHex(getElementAttribute(element, kCodecPrivateDataAttr, isText));
  fourCC_ = adjustedFourCC(getElementAttribute(element, kFourCCAttr, isText).str());
  const bool isH264 = !notVideo && fourCC_ == kH264Value;
  nalUnitLengthField_ = number(kNALUnitLengthFieldAttr, true, isH264 ? "4" : kZeroValue);
}

}  // namespace SmoothStreaming
