#include "mpl/dash/MediaPresentationDescription.h"

#include <string_view>
#include <utility>

#include "mpl/Exception.h"
#include "mpl/dash/AttributeReaders.h"
#include "mpl/dash/Parsers.h"
#include "qnc/qncChecked.h"
#include "qnc/qncLog.h"
#include "qnc/qncXml.h"

namespace mpl::dash {

using qnc::xml::Element;

namespace {

constexpr char kSource[] = "libs/mpl/src/mpl/dash/MediaPresentationDescription";

// Where the next Period begins unless it tells: -1 when that is not known.
int64_t endOf(const Period& period) {
  int64_t end = -1;
  if (period.durationMs() == -1 || !qnc::checkedAdd(period.startMs(), period.durationMs(), end)) {
    return -1;
  }
  return end;
}

}  // namespace

std::shared_ptr<MediaPresentationDescription> MediaPresentationDescription::parse(
    const void* data, unsigned long size, const FastString& baseURL) {
  qnc::xml::Document document;
  const qnc::Result result = document.parse(data, size);
  if (qnc::failed(result)) {
    QNC_LOG(qnc::debug::Level::DEBUG, result, kSource,
            FastString("Failed to parse XML: ") + document.errorText());
    throw ParseException("Failed to parse XML");
  }
  return parse(document.root(), baseURL);
}

std::shared_ptr<MediaPresentationDescription> MediaPresentationDescription::parse(
    const Element& root, const FastString& baseURL) {
  if (root.localName() != "MPD") throw ParseException("Not a valid MPD");
  return parseMPD(root, ReferenceURI::share(baseURL));
}

std::shared_ptr<MediaPresentationDescription> MediaPresentationDescription::parse(
    const FastString& text, const FastString& baseURL) {
  return parse(text.data(), text.size(), baseURL);
}

std::shared_ptr<MediaPresentationDescription> parseMPD(const Element& element, SharedBase baseURL) {
  const int64_t availabilityStartTime = parseDateTime(element, "availabilityStartTime", -1);
  int64_t duration = parseDuration(element, "mediaPresentationDuration", -1);
  const int64_t minBufferTime = parseDuration(element, "minBufferTime", -1);
  const bool dynamic = element.attribute("type") == "dynamic";
  const int64_t minimumUpdatePeriod =
      dynamic ? parseDuration(element, "minimumUpdatePeriod", -1) : -1;
  const int64_t timeShiftBufferDepth =
      dynamic ? parseDuration(element, "timeShiftBufferDepth", -1) : -1;

  int64_t nextStart = dynamic ? -1 : 0;
  bool haveBaseURL = false;
  UTCTimingElement utcTiming;
  FastString location;
  std::vector<std::unique_ptr<Period>> periods;
  for (const Element& child : element.children()) {
    const std::string_view name = child.localName();
    if (name == "BaseURL") {
      if (!std::exchange(haveBaseURL, true)) baseURL = parseBaseURL(child, baseURL);
    } else if (name == "UTCTiming") {
      utcTiming = parseUTCTiming(child);
    } else if (name == "Location") {
      location = child.getText();
    } else if (name == "Period") {
      auto period = parsePeriod(child, baseURL, nextStart);
      if (period->startMs() == -1) {
        if (!dynamic) throw ParseException("Unable to determine start time of Period");
        continue;
      }
      nextStart = endOf(*period);
      periods.push_back(std::move(period));
    }
  }

  if (duration == -1) {
    if (nextStart == -1 && !dynamic) {
      throw ParseException("Unable to determine duration of static MPD");
    }
    duration = nextStart;
  }
  if (periods.empty()) throw ParseException("No Period found");
  return std::make_shared<MediaPresentationDescription>(
      availabilityStartTime, duration, minBufferTime, dynamic, minimumUpdatePeriod,
      timeShiftBufferDepth, std::move(utcTiming), std::move(location), std::move(periods));
}

std::unique_ptr<Period> parsePeriod(const Element& element, SharedBase baseURL,
                                    int64_t defaultStartMs) {
  const int64_t startMs = parseDuration(element, "start", defaultStartMs);
  const int64_t durationMs = parseDuration(element, "duration", -1);
  bool haveBaseURL = false;
  std::shared_ptr<const SegmentBase> segmentBase;
  std::vector<std::unique_ptr<AdaptationSet>> sets;
  for (const Element& child : element.children()) {
    const std::string_view name = child.localName();
    if (name == "BaseURL") {
      if (!std::exchange(haveBaseURL, true)) baseURL = parseBaseURL(child, baseURL);
    } else if (name == "AdaptationSet") {
      sets.push_back(parseAdaptationSet(child, baseURL, segmentBase));
    } else {
      std::shared_ptr<const SegmentBase> own;  // nothing is inherited from another of the Period
      if (parseSegmentElement(child, baseURL, own)) segmentBase = std::move(own);
    }
  }
  return std::make_unique<Period>(element.getAttributeValue("id"), startMs, durationMs,
                                  std::move(sets));
}

SharedBase parseBaseURL(const Element& element, const SharedBase& parentBaseURL) {
  const std::string_view text = qnc::trimmed(element.text());
  if (text.empty()) return parentBaseURL;
  return ReferenceURI::share(text, parentBaseURL);
}

UTCTimingElement parseUTCTiming(const Element& element) {
  return {element.getAttributeValue("schemeIdUri"), element.getAttributeValue("value")};
}

// Here rather than with its caller: these messages bear this file's name.
qnc::Uuid parsePSSHBoxUUID(qnc::ByteArrayRef bytes) {
  constexpr size_t kSmallest = 36;
  constexpr size_t kSystemID = 12;
  if (bytes.size() < kSmallest) return {};
  const auto word = [&bytes](size_t at) {
    return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 |
           uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
  };
  if (word(0) != bytes.size() || word(4) != fourCharacterTag("pssh")) return {};
  // Version and flags together: a box with flags counts as unsupported.
  if (word(8) >= 2) {
    QNC_LOG(qnc::debug::Level::WARNING, qnc::Result::Success, kSource,
            "Unsupported pssh box version");
    return {};
  }
  return qnc::Uuid(bytes.data() + kSystemID, qnc::Uuid::kSize);
}

std::shared_ptr<ContentProtection> parseContentProtection(const Element& element) {
  qnc::Uuid systemId;
  SchemeInitData initData;
  for (const Element& child : element.children()) {
    if (child.qualifiedName() != "cenc:pssh") continue;
    initData = {"video/mp4", qnc::ByteArray::fromBase64(child.text())};
    systemId = parsePSSHBoxUUID(initData.data);
    if (systemId.isNil()) {
      QNC_LOG(qnc::debug::Level::WARNING, qnc::Result::Success, kSource,
              "Skipped unsupported ContentProtection element");
      return nullptr;
    }
  }
  return std::make_shared<ContentProtection>(element.getAttributeValue("schemeIdUri"), systemId,
                                             std::move(initData));
}

}  // namespace mpl::dash
