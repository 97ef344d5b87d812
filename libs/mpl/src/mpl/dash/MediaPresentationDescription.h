#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "mpl/dash/Period.h"

namespace qnc::xml {
class Element;
}

namespace mpl::dash {

// How to synchronise with the clock of the service; both empty when the MPD does not tell.
struct UTCTimingElement {
  qnc::FastString schemeIdUri;
  qnc::FastString value;

  bool operator==(const UTCTimingElement&) const = default;
};

// An MPEG-DASH Media Presentation Description (ISO/IEC 23009-1). Built by one call of parse and
// immutable: it may be read from any thread. Durations are milliseconds, points in time
// milliseconds since the Unix epoch; -1 is absent or unknown.
class MediaPresentationDescription {
 public:
  MediaPresentationDescription(int64_t availabilityStartTime, int64_t mediaPresentationDuration,
                               int64_t minBufferTime, bool dynamic, int64_t minimumUpdatePeriod,
                               int64_t timeShiftBufferDepth, UTCTimingElement utcTiming,
                               qnc::FastString location,
                               std::vector<std::unique_ptr<Period>> periods)
      : availabilityStartTime_(availabilityStartTime),
        mediaPresentationDuration_(mediaPresentationDuration),
        minBufferTime_(minBufferTime),
        dynamic_(dynamic),
        minimumUpdatePeriod_(minimumUpdatePeriod),
        timeShiftBufferDepth_(timeShiftBufferDepth),
        utcTiming_(std::move(utcTiming)),
        location_(std::move(location)),
        periods_(std::move(periods)) {}

  // `baseURL` is the manifest's own URL; with an empty one, references stay as the manifest writes
  // them. Unknown elements and attributes are ignored, malformed numbers and times take their
  // defaults. BaseURL and segment elements hold for what follows them in the document.
  //
  // Throws ParseException "Failed to parse XML", "Not a valid MPD", "Unable to determine start time
  // of Period", "Unable to determine duration of static MPD" or "No Period found";
  // InvalidStateException "Found language inconsistency", "Found content-type inconsistency",
  // "Mismatching representation protections defined" or "Conflicting schemeId URIs";
  // InvalidArgumentException "SegmentBase must be of type SingleSegmentBase or MultiSegmentBase".
  // Templates are not looked at before a URL is built.
  static std::shared_ptr<MediaPresentationDescription> parse(const void* data, unsigned long size,
                                                             const qnc::FastString& baseURL);
  static std::shared_ptr<MediaPresentationDescription> parse(const qnc::FastString& text,
                                                             const qnc::FastString& baseURL);

  // The same from a document that was parsed before.
  static std::shared_ptr<MediaPresentationDescription> parse(const qnc::xml::Element& root,
                                                             const qnc::FastString& baseURL);

  int64_t availabilityStartTime() const { return availabilityStartTime_; }
  int64_t mediaPresentationDuration() const { return mediaPresentationDuration_; }
  int64_t minBufferTime() const { return minBufferTime_; }
  bool dynamic() const { return dynamic_; }
  int64_t minimumUpdatePeriod() const { return minimumUpdatePeriod_; }    // -1 when static
  int64_t timeShiftBufferDepth() const { return timeShiftBufferDepth_; }  // -1 when static
  const UTCTimingElement& utcTiming() const { return utcTiming_; }
  const qnc::FastString& location() const { return location_; }
  // Never empty.
  const std::vector<std::unique_ptr<Period>>& periods() const { return periods_; }

 private:
  int64_t availabilityStartTime_;
  int64_t mediaPresentationDuration_;
  int64_t minBufferTime_;
  bool dynamic_;
  int64_t minimumUpdatePeriod_;
  int64_t timeShiftBufferDepth_;
  UTCTimingElement utcTiming_;
  qnc::FastString location_;
  std::vector<std::unique_ptr<Period>> periods_;
};

}  // namespace mpl::dash
