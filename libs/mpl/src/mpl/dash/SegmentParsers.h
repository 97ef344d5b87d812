#pragma once

#include <memory>

#include "mpl/dash/SegmentList.h"
#include "mpl/dash/SegmentTemplate.h"
#include "mpl/dash/SegmentTimeline.h"
#include "mpl/dash/SingleSegmentBase.h"
#include "qnc/qncXml.h"

namespace mpl::dash {

// Each makes a description from an element, the base URL in force there and the inherited
// description of the same kind, or null. Attributes, the initialisation and a non-empty timeline
// that the element lacks are the parent's; listed segments are the element's own.
std::shared_ptr<SingleSegmentBase> parseSegmentBase(const qnc::xml::Element& element,
                                                    const SharedBase& baseURL,
                                                    const SingleSegmentBase* parent);
std::shared_ptr<SegmentList> parseSegmentList(const qnc::xml::Element& element,
                                              const SharedBase& baseURL, const SegmentList* parent);
std::shared_ptr<SegmentTemplate> parseSegmentTemplate(const qnc::xml::Element& element,
                                                      const SharedBase& baseURL,
                                                      const SegmentTemplate* parent);

// An S element stands for r + 1 segments; a negative r, the open-ended repeat of the standard, adds
// none.
SegmentTimeline parseSegmentTimeline(const qnc::xml::Element& element);

// "sourceURL" and "range"; "media" and "mediaRange". A range that cannot be read is the whole.
RangedURI parseInitializationURL(const qnc::xml::Element& element, const SharedBase& baseURL);
RangedURI parseSegmentURL(const qnc::xml::Element& element, const SharedBase& baseURL);

}  // namespace mpl::dash
