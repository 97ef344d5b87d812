#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "mpl/dash/MultiSegmentBase.h"
#include "mpl/dash/TemplateURI.h"

namespace mpl::dash {

// A text that inheriting descriptions share; null is the empty text.
using SharedText = std::shared_ptr<const FastString>;

// Segments whose URLs are made from a template. A template that cannot be built throws when a URL
// is made (TemplateURI.h), not before. Numbers are printed as 32 bits: one that does not fit is out
// of range, and a list that would reach it throws before it shows anything.
class SegmentTemplate : public MultiSegmentBase {
 public:
  // `baseURL` is the one in force where the element stands.
  SegmentTemplate(MultiSegmentInfo info, SharedText initializationTemplate,
                  SharedText mediaTemplate, SharedBase baseURL);

  // From the template when there is one, with number and time 0, else the fixed one.
  RangedURI getInitialization(const Representation& representation) const override;
  int64_t getLastSegmentNum(int64_t periodDurationUs) const override;
  RangedURI getSegmentURL(const Representation& representation, int64_t number) const override;
  void forEachSegment(const Representation& representation, int64_t first, int64_t last,
                      const SegmentVisitor& visitor) const override;

  const FastString& initializationTemplate() const { return textOf(initializationTemplate_); }
  const FastString& mediaTemplate() const { return textOf(mediaTemplate_); }
  const SharedText& sharedInitializationTemplate() const { return initializationTemplate_; }
  const SharedText& sharedMediaTemplate() const { return mediaTemplate_; }
  FastString baseURL() const { return baseURL_ ? baseURL_->resolve() : FastString(); }

 private:
  bool countDependsOnPeriod() const override { return !isExplicit(); }

  static const FastString& textOf(const SharedText& text);

  const SharedText initializationTemplate_;
  const SharedText mediaTemplate_;
  const SharedBase baseURL_;
};

}  // namespace mpl::dash
