#pragma once

#include <cstdint>
#include <string_view>

#include "mpl/dash/MultiSegmentBase.h"
#include "mpl/dash/TemplateURI.h"

namespace mpl::dash {

// Segments whose URLs are made from a template. A template that cannot be built throws when a URL
// is made (TemplateURI.h), not before. Numbers are printed as 32 bits: one that does not fit is out
// of range, and no segment is counted beyond it.
class SegmentTemplate : public MultiSegmentBase {
 public:
  // `baseURL` is the one in force where the element stands.
  SegmentTemplate(MultiSegmentInfo info, FastString initializationTemplate,
                  FastString mediaTemplate, SharedText baseURL);

  // From the template when there is one, with number and time 0, else the fixed one.
  RangedURI getInitialization(const Representation& representation) const override;
  int64_t getLastSegmentNum(int64_t periodDurationUs) const override;
  RangedURI getSegmentURL(const Representation& representation, int64_t number) const override;
  void forEachSegment(const Representation& representation, int64_t first, int64_t last,
                      const SegmentVisitor& visitor) const override;

  const FastString& initializationTemplate() const { return initializationTemplate_; }
  const FastString& mediaTemplate() const { return mediaTemplate_; }
  const FastString& baseURL() const { return textOf(baseURL_); }

 private:
  bool countDependsOnPeriod() const override { return !isExplicit(); }

  const FastString initializationTemplate_;
  const FastString mediaTemplate_;
  const SharedText baseURL_;
};

}  // namespace mpl::dash
