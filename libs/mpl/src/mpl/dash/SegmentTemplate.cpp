#include "mpl/dash/SegmentTemplate.h"

#include <string>
#include <utility>

#include "mpl/Numbers.h"
#include "mpl/dash/Representation.h"
#include "mpl/dash/Scale.h"
#include "qnc/qncChecked.h"

namespace mpl::dash {

namespace {

// Builds the resolved URLs of one Representation.
class URLWriter {
 public:
  URLWriter(const FastString& text, const Representation& representation, FastString base)
      : base_(std::move(base)),
        relative_(text, representation.id(), representation.format().bandwidth()),
        resolved_(relative_.resolvedAgainst(base_)) {}

  std::string_view write(int32_t number, int64_t time) {
    uri_.clear();
    (resolved_ ? *resolved_ : relative_).append(uri_, number, time);
    if (!resolved_) uri_ = ReferenceURI::resolve(uri_, base_).str();
    return uri_;
  }

 private:
  const FastString base_;
  const TemplateURI relative_;
  const std::optional<TemplateURI> resolved_;
  std::string uri_;
};

}  // namespace

SegmentTemplate::SegmentTemplate(MultiSegmentInfo info, SharedText initializationTemplate,
                                 SharedText mediaTemplate, SharedBase baseURL)
    : MultiSegmentBase(std::move(info)),
      initializationTemplate_(std::move(initializationTemplate)),
      mediaTemplate_(std::move(mediaTemplate)),
      baseURL_(std::move(baseURL)) {}

const FastString& SegmentTemplate::textOf(const SharedText& text) {
  static const FastString empty;
  return text ? *text : empty;
}

RangedURI SegmentTemplate::getInitialization(const Representation& representation) const {
  if (initializationTemplate().empty()) return SegmentBase::getInitialization(representation);
  return RangedURI(TemplateURI::build(initializationTemplate(), representation.id(), 0,
                                      representation.format().bandwidth(), 0),
                   baseURL_);
}

int64_t SegmentTemplate::getLastSegmentNum(int64_t periodDurationUs) const {
  if (!isExplicit() && periodDurationUs == -1) return -1;
  const Int128 count = isExplicit() ? static_cast<Int128>(segmentTimeline().size())
                                    : ceilDivide(periodDurationUs, segmentDurationUs());
  return clamped(startNumber() + count - 1);
}

RangedURI SegmentTemplate::getSegmentURL(const Representation& representation,
                                         int64_t number) const {
  const int64_t time =
      isExplicit() ? segmentTimeline()[timelineIndex(number)].startTime : ticksBefore(number);
  int32_t printed = 0;
  if (!qnc::checkedCast(number, printed)) throwOutOfRange();
  return RangedURI(TemplateURI::build(mediaTemplate(), representation.id(), printed,
                                      representation.format().bandwidth(), time),
                   baseURL_);
}

void SegmentTemplate::forEachSegment(const Representation& representation, int64_t first,
                                     int64_t last, const SegmentVisitor& visitor) const {
  if (last < first) return;
  int32_t number = 0;
  int32_t end = 0;
  if (!qnc::checkedCast(first, number) || !qnc::checkedCast(last, end)) throwOutOfRange();
  URLWriter writer(mediaTemplate(), representation, baseURL());
  if (!isExplicit()) {
    for (int64_t n = first; n <= last; ++n) {
      visitor({n, writer.write(static_cast<int32_t>(n), ticksBefore(n)), Range()});
    }
    return;
  }
  (void)timelineIndex(last);
  auto cursor = segmentTimeline().cursor(timelineIndex(first));
  for (int64_t n = first; n <= last; ++n, ++cursor) {
    visitor({n, writer.write(static_cast<int32_t>(n), (*cursor).startTime), Range()});
  }
}

}  // namespace mpl::dash
