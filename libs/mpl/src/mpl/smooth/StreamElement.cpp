#include "mpl/smooth/StreamElement.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "qnc/qncChecked.h"

namespace SmoothStreaming {

namespace {

// Unlike that of the root; manifests of this kind state one where it matters.
constexpr char kDefaultTimeScale[] = "100000000";

constexpr std::pair<std::string_view, Stream::Type> g_TypeMap[] = {
    {"audio", Stream::Type::Audio},
    {"video", Stream::Type::Video},
    {"text", Stream::Type::Text},
};

constexpr std::pair<std::string_view, Stream::Subtype> g_SubtypeMap[] = {
    {"SCMD", Stream::Subtype::SCMD}, {"CHAP", Stream::Subtype::CHAP},
    {"SUBT", Stream::Subtype::SUBT}, {"CAPT", Stream::Subtype::CAPT},
    {"DESC", Stream::Subtype::DESC}, {"CTRL", Stream::Subtype::CTRL},
    {"DATA", Stream::Subtype::DATA},
};

Stream::Type typeOf(std::string_view text) {
  for (const auto& [name, type] : g_TypeMap) {
    if (name == text) return type;
  }
  throw std::runtime_error("Unsupported Type value");
}

Stream::Subtype subtypeOf(std::string_view text) {
  for (const auto& [name, subtype] : g_SubtypeMap) {
    if (name == text) return subtype;
  }
  return Stream::Subtype::None;
}

// The fragment addresses of one quality: the template with the bitrate in place, cut at its start
// times.
class FragmentURL {
 public:
  FragmentURL(const qnc::FastString& url, uint32_t bitrate) {
    qnc::FastString text = url;
    const qnc::FastString digits = qnc::FastString::fromNumber(bitrate);
    text.replaceAll("{bitrate}", digits);
    text.replaceAll("{Bitrate}", digits);
    // Digits do not complete a placeholder and placeholders do not overlap: one pass for both.
    std::string_view rest = text;
    for (;;) {
      const size_t at = std::min(rest.find(kStartTime), rest.find(kStartTimeBlank));
      pieces_.emplace_back(rest.substr(0, at));
      if (at == std::string_view::npos) break;
      rest.remove_prefix(at + kStartTime.size());
    }
  }

  std::string_view write(uint64_t start) {
    char digits[20];
    const auto end = std::to_chars(digits, digits + sizeof digits, start).ptr;
    uri_ = pieces_.front();
    for (size_t i = 1; i < pieces_.size(); ++i)
      uri_.append(digits, end).append(pieces_[i]);
    return uri_;
  }

 private:
  static constexpr std::string_view kStartTime = "{start_time}";
  static constexpr std::string_view kStartTimeBlank = "{start time}";

  std::vector<std::string> pieces_;
  std::string uri_;
};

}  // namespace

std::shared_ptr<StreamElement> StreamElement::create(const qnc::xml::Element& element) {
  std::shared_ptr<StreamElement> stream(new StreamElement(element));
  stream->readChildren(element, stream);
  return stream;
}

StreamElement::StreamElement(const qnc::xml::Element& element) : Element(element, kStreamElement) {
  type_ = typeOf(getElementAttribute(element, kTypeAttr));
  const bool notVideo = type_ != Stream::Type::Video;
  const bool notText = type_ != Stream::Type::Text;
  const auto size = [&element, notVideo](const char* name) {
    return getElementNumber<uint32_t>(element, name, notVideo);
  };
  subType_ = subtypeOf(getElementAttribute(element, kSubtypeAttr, notText));
  timeScale_ = getElementNumber<uint64_t>(element, kTimeScaleAttr, true, kDefaultTimeScale);
  name_ = getElementAttribute(element, kNameAttr, true);
  numberOfFragments_ = getElementNumber<uint64_t>(element, kChunksAttr);
  numberOfTracks_ = getElementNumber<uint32_t>(element, kQualityLevelsAttr);
  url_ = getElementAttribute(element, kUrlAttr);
  maxWidth_ = size(kMaxWidthAttr);
  maxHeight_ = size(kMaxHeightAttr);
  displayWidth_ = size(kDisplayWidthAttr);
  displayHeight_ = size(kDisplayHeightAttr);
  parentStream_ = getElementAttribute(element, kParentStreamAttr, true);
  manifestOutput_ =
      getElementAttribute(element, kManifestOutputAttr, true, kFalseValue) == kTrueValue;
}

void StreamElement::readChildren(const qnc::xml::Element& element,
                                 const std::weak_ptr<StreamElement>& self) {
  streamFragmentElements_.reserve(element.childCount());
  std::optional<StreamFragmentElement> previous;
  for (const auto& child : element.children()) {
    const std::string_view name = child.localName();
    if (name == kTrackElement) {
      trackElements_.push_back(std::make_shared<TrackElement>(child, self, type_));
    } else if (name == kStreamFragmentElement) {
      StreamFragmentElement fragment(child, previous ? &*previous : nullptr,
                                     child.nextSiblingByName(kStreamFragmentElement));
      streamFragmentElements_.append(fragment);
      previous = std::move(fragment);
    }
  }
}

void StreamElement::letGo() {
  Element::letGo();
  for (const auto& track : trackElements_)
    track->letGo();
}

uint64_t StreamElement::listedFragments() const {
  return std::min(numberOfFragments_, streamFragmentElements_.fragmentCount());
}

void StreamElement::fillListOfURL(const qnc::FastString& baseURL, size_t trackElementIndex,
                                  std::vector<mpl::RangedURI>& out) const {
  out.clear();
  const mpl::SharedBase base = mpl::ReferenceURI::share(baseURL);
  forEachURL(trackElementIndex,
             [&](std::string_view reference) { out.emplace_back(reference, base); });
}

void StreamElement::forEachURL(size_t trackElementIndex, const URLVisitor& visitor) const {
  if (trackElementIndex >= trackElements_.size()) {
    throw std::invalid_argument("trackElementIndex shall be less than number of available tracks");
  }
  FragmentURL url(url_, trackElements_[trackElementIndex]->bitrate());
  uint64_t left = listedFragments();
  for (const auto& run : streamFragmentElements_.runs()) {
    uint64_t start = run.time;
    for (uint32_t j = 0; j < run.repeats; ++j) {
      if (left-- == 0) return;
      visitor(url.write(start));
      start = qnc::saturatingAdd(start, run.duration);
    }
  }
}

}  // namespace SmoothStreaming
