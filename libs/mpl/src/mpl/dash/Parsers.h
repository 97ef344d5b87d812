#pragma once

#include <cstdint>
#include <memory>

#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/SegmentParsers.h"

// The steps of MediaPresentationDescription::parse, one for each element, for the parser itself and
// its tests. Errors are those of `parse`.
namespace mpl::dash {

std::shared_ptr<MediaPresentationDescription> parseMPD(const qnc::xml::Element& element,
                                                       SharedBase baseURL);
// `startMs` of the result is -1 when neither the element nor the default tells it.
std::unique_ptr<Period> parsePeriod(const qnc::xml::Element& element, SharedBase baseURL,
                                    int64_t defaultStartMs);
std::unique_ptr<AdaptationSet> parseAdaptationSet(
    const qnc::xml::Element& element, SharedBase baseURL,
    std::shared_ptr<const SegmentBase> inheritedSegmentBase);
std::shared_ptr<Representation> parseRepresentation(
    const qnc::xml::Element& element, SharedBase baseURL, const FastString& mimeType,
    const FastString& codecs, int32_t width, int32_t height, const FrameRate& frameRate,
    int32_t audioChannels, int32_t audioSamplingRate, const FastString& lang,
    std::shared_ptr<const SegmentBase> inheritedSegmentBase, ContentProtectionsBuilder& builder);

// The element's text, without white space around it, resolved against the parent's; the parent's
// when there is no text.
SharedBase parseBaseURL(const qnc::xml::Element& element, const SharedBase& parentBaseURL);
UTCTimingElement parseUTCTiming(const qnc::xml::Element& element);
ContentType parseContentType(const qnc::xml::Element& element);
// -1 for any scheme but the channel count of ISO/IEC 23003-3.
int32_t parseAudioChannelConfiguration(const qnc::xml::Element& element);
// Null when the element holds a PSSH box that cannot be used.
std::shared_ptr<ContentProtection> parseContentProtection(const qnc::xml::Element& element);
// The SystemID of a 'pssh' box (ISO/IEC 23001-7 section 8.1) that is the whole of `bytes`; nil when
// it is none or of an unsupported version.
qnc::Uuid parsePSSHBoxUUID(qnc::ByteArrayRef bytes);

// By the MIME type of its format, where that tells.
ContentType determineContentType(const Representation& representation);
// The one that is known; both must not differ.
ContentType checkContentTypeConsistency(ContentType a, ContentType b);
FastString checkLanguageConsistency(const FastString& a, const FastString& b);

// Parses `element` if it is a SegmentBase, SegmentList or SegmentTemplate and puts the result in
// place of `inherited`, which serves as its parent where it is of the same kind. False for any
// other element.
bool parseSegmentElement(const qnc::xml::Element& element, const SharedBase& baseURL,
                         std::shared_ptr<const SegmentBase>& inherited);

}  // namespace mpl::dash
