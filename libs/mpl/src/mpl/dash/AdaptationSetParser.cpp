#include <utility>

#include "mpl/Exception.h"
#include "mpl/dash/AttributeReaders.h"
#include "mpl/dash/MultiSegmentRepresentation.h"
#include "mpl/dash/Parsers.h"
#include "mpl/dash/SingleSegmentRepresentation.h"

namespace mpl::dash {

using qnc::xml::Element;

namespace {

// A text that every Representation of a set may inherit. Nobody means one that is longer than
// kMaxInherited: it counts as absent, so that a small manifest cannot ask for very many copies.
FastString parseInheritable(const Element& element, std::string_view name,
                            const FastString& defaultValue = {}) {
  constexpr size_t kMaxInherited = 1024;
  const std::string_view text = element.attribute(name);
  return text.empty() || text.size() > kMaxInherited ? defaultValue : FastString(text);
}

template <class T>
const T* parentAs(const std::shared_ptr<const SegmentBase>& inherited) {
  return dynamic_cast<const T*>(inherited.get());
}

std::shared_ptr<Representation> makeRepresentation(
    Format format, const std::shared_ptr<const SegmentBase>& segmentBase) {
  const FastString id = format.id();
  constexpr int32_t kRevision = Representation::kNoRevision;
  if (auto single = std::dynamic_pointer_cast<const SingleSegmentBase>(segmentBase)) {
    return std::make_shared<SingleSegmentRepresentation>(
        id, kRevision, std::move(format), std::move(single),
        SingleSegmentRepresentation::kUnknownLength);
  }
  if (auto multi = std::dynamic_pointer_cast<const MultiSegmentBase>(segmentBase)) {
    return std::make_shared<MultiSegmentRepresentation>(id, kRevision, std::move(format),
                                                        std::move(multi));
  }
  throw InvalidArgumentException(
      "SegmentBase must be of type SingleSegmentBase or MultiSegmentBase");
}

// Whether a property of a set marks it as a trick-mode set.
bool isTrickModeProperty(const Element& element) {
  return (element.localName() == "EssentialProperty" ||
          element.localName() == "SupplementalProperty") &&
         element.attribute("schemeIdUri") == "http://dashif.org/guidelines/trickmode";
}

}  // namespace

bool parseSegmentElement(const Element& element, const SharedBase& baseURL,
                         std::shared_ptr<const SegmentBase>& inherited) {
  const std::string_view name = element.localName();
  if (name == "SegmentBase") {
    inherited = parseSegmentBase(element, baseURL, parentAs<SingleSegmentBase>(inherited));
  } else if (name == "SegmentList") {
    inherited = parseSegmentList(element, baseURL, parentAs<SegmentList>(inherited));
  } else if (name == "SegmentTemplate") {
    inherited = parseSegmentTemplate(element, baseURL, parentAs<SegmentTemplate>(inherited));
  } else {
    return false;
  }
  return true;
}

std::unique_ptr<AdaptationSet> parseAdaptationSet(const Element& element, SharedBase baseURL,
                                                  std::shared_ptr<const SegmentBase> segmentBase) {
  const auto id = parseAttribute<int32_t>(element, "id", -1);
  ContentType contentType = parseContentType(element);
  const FastString mimeType = parseInheritable(element, "mimeType");
  const FastString codecs = parseInheritable(element, "codecs");
  const auto width = parseAttribute<int32_t>(element, "width", -1);
  const auto height = parseAttribute<int32_t>(element, "height", -1);
  const auto frameRate = parseAttribute(element, "frameRate", FrameRate());
  int32_t audioChannels = -1;
  const auto audioSamplingRate = parseAttribute<int32_t>(element, "audioSamplingRate", -1);
  FastString lang = parseInheritable(element, "lang");

  bool haveBaseURL = false;
  bool trickMode = false;
  ContentProtectionsBuilder builder;
  std::vector<std::shared_ptr<Representation>> representations;
  for (const Element& child : element.children()) {
    const std::string_view name = child.localName();
    if (name == "BaseURL") {
      if (!std::exchange(haveBaseURL, true)) baseURL = parseBaseURL(child, baseURL);
    } else if (name == "ContentProtection") {
      if (const auto p = parseContentProtection(child)) builder.addAdaptationSetProtection(p);
    } else if (name == "ContentComponent") {
      lang = checkLanguageConsistency(lang, parseInheritable(child, "lang"));
      contentType = checkContentTypeConsistency(contentType, parseContentType(child));
    } else if (name == "Representation") {
      auto representation =
          parseRepresentation(child, baseURL, mimeType, codecs, width, height, frameRate,
                              audioChannels, audioSamplingRate, lang, segmentBase, builder);
      builder.endRepresentation();
      contentType = checkContentTypeConsistency(contentType, determineContentType(*representation));
      representations.push_back(std::move(representation));
    } else if (name == "AudioChannelConfiguration") {
      audioChannels = parseAudioChannelConfiguration(child);
    } else if (isTrickModeProperty(child)) {
      trickMode = true;
    } else {
      (void)parseSegmentElement(child, baseURL, segmentBase);
    }
  }
  return std::make_unique<AdaptationSet>(id, contentType, std::move(lang), mimeType,
                                         std::move(representations), builder.build(), trickMode);
}

std::shared_ptr<Representation> parseRepresentation(
    const Element& element, SharedBase baseURL, const FastString& mimeType,
    const FastString& codecs, int32_t width, int32_t height, const FrameRate& frameRate,
    int32_t audioChannels, int32_t audioSamplingRate, const FastString& lang,
    std::shared_ptr<const SegmentBase> segmentBase, ContentProtectionsBuilder& builder) {
  bool haveBaseURL = false;
  for (const Element& child : element.children()) {
    const std::string_view name = child.localName();
    if (name == "BaseURL") {
      if (!std::exchange(haveBaseURL, true)) baseURL = parseBaseURL(child, baseURL);
    } else if (name == "AudioChannelConfiguration") {
      audioChannels = parseAudioChannelConfiguration(child);
    } else if (name == "ContentProtection") {
      // Into the set's list on purpose: players need one list for the whole set.
      if (const auto p = parseContentProtection(child)) builder.addAdaptationSetProtection(p);
    } else {
      (void)parseSegmentElement(child, baseURL, segmentBase);
    }
  }
  Format format(element.getAttributeValue("id"), parseInheritable(element, "mimeType", mimeType),
                parseAttribute(element, "width", width), parseAttribute(element, "height", height),
                parseAttribute(element, "frameRate", frameRate), audioChannels,
                parseAttribute(element, "audioSamplingRate", audioSamplingRate),
                parseAttribute<int32_t>(element, "bandwidth", -1), lang,
                parseInheritable(element, "codecs", codecs));
  if (!segmentBase) segmentBase = std::make_shared<SingleSegmentBase>(baseURL);
  return makeRepresentation(std::move(format), segmentBase);
}

ContentType parseContentType(const Element& element) {
  const std::string_view type = element.attribute("contentType");
  if (type == "video") return ContentType::Video;
  if (type == "audio") return ContentType::Audio;
  if (type == "text") return ContentType::Text;
  return ContentType::Unknown;
}

ContentType determineContentType(const Representation& representation) {
  const FastString& mimeType = representation.format().mimeType();
  const FastString& codecs = representation.format().codecs();
  if (mimeType.startsWith("video/")) return ContentType::Video;
  if (mimeType.startsWith("audio/")) return ContentType::Audio;
  if (mimeType.startsWith("text/") || mimeType == "application/ttml+xml") return ContentType::Text;
  if (mimeType == "application/mp4" && (codecs == "stpp" || codecs == "wvtt")) {
    return ContentType::Text;
  }
  return ContentType::Unknown;
}

ContentType checkContentTypeConsistency(ContentType a, ContentType b) {
  if (a == ContentType::Unknown) return b;
  if (b == ContentType::Unknown || a == b) return a;
  throw InvalidStateException("Found content-type inconsistency");
}

FastString checkLanguageConsistency(const FastString& a, const FastString& b) {
  if (a.empty()) return b;
  if (b.empty() || a == b) return a;
  throw InvalidStateException("Found language inconsistency");
}

int32_t parseAudioChannelConfiguration(const Element& element) {
  constexpr std::string_view kScheme = "urn:mpeg:dash:23003:3:audio_channel_configuration:2011";
  if (element.attribute("schemeIdUri") != kScheme) return -1;
  return parseAttribute<int32_t>(element, "value", -1);
}

}  // namespace mpl::dash
