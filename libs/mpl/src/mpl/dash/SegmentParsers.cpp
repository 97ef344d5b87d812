#include "mpl/dash/SegmentParsers.h"

#include <utility>

#include "mpl/dash/AttributeReaders.h"

namespace mpl::dash {

using qnc::xml::Element;

namespace {

struct SegmentURLText {
  std::string_view reference;
  Range range;
};

SegmentURLText readSegmentURL(const Element& element) {
  return {element.attribute("media"), parseAttribute<Range>(element, "mediaRange", Range())};
}

// What lists and templates have in common.
MultiSegmentInfo parseMultiSegmentInfo(const Element& element, const SharedText& baseURL,
                                       const MultiSegmentBase* parent) {
  MultiSegmentInfo info;
  if (parent) {
    info = {parent->initialization(), parent->timescale(), parent->presentationTimeOffset(),
            parent->startNumber(),    parent->duration(),  parent->sharedTimeline()};
  }
  info.timescale = parseAttribute(element, "timescale", info.timescale);
  info.presentationTimeOffset =
      parseAttribute(element, "presentationTimeOffset", info.presentationTimeOffset);
  info.duration = parseAttribute(element, "duration", info.duration);
  info.startNumber = parseAttribute(element, "startNumber", info.startNumber);
  SharedTimeline own;
  for (const Element& child : element.children()) {
    const std::string_view name = child.localName();
    if (name == "Initialization") {
      info.initialization = parseInitializationURL(child, baseURL);
    } else if (name == "SegmentTimeline") {
      own = std::make_shared<const SegmentTimeline>(parseSegmentTimeline(child));
    }
  }
  if (own && !own->empty()) info.timeline = std::move(own);
  return info;
}

}  // namespace

std::shared_ptr<SingleSegmentBase> parseSegmentBase(const Element& element,
                                                    const SharedText& baseURL,
                                                    const SingleSegmentBase* parent) {
  const int64_t timescale =
      parseAttribute<int64_t>(element, "timescale", parent ? parent->timescale() : 1);
  const int64_t offset = parseAttribute<int64_t>(element, "presentationTimeOffset",
                                                 parent ? parent->presentationTimeOffset() : 0);
  const Range index =
      parseAttribute<Range>(element, "indexRange", parent ? parent->getIndex().range() : Range());
  RangedURI initialization = parent ? parent->initialization() : RangedURI();
  for (const Element& child : element.children()) {
    if (child.localName() == "Initialization") {
      initialization = parseInitializationURL(child, baseURL);
    }
  }
  const int64_t indexEnd =
      index.length == Range::kToEnd ? Range::kToEnd : index.offset + (index.length - 1);
  return std::make_shared<SingleSegmentBase>(std::move(initialization), timescale, offset, baseURL,
                                             index.offset, indexEnd);
}

std::shared_ptr<SegmentList> parseSegmentList(const Element& element, const SharedText& baseURL,
                                              const SegmentList* parent) {
  MediaSegments segments(baseURL);
  for (const Element& child : element.children()) {
    if (child.localName() != "SegmentURL") continue;
    const SegmentURLText segment = readSegmentURL(child);
    segments.append(segment.reference, segment.range);
  }
  segments.shrinkToFit();
  return std::make_shared<SegmentList>(parseMultiSegmentInfo(element, baseURL, parent),
                                       std::move(segments));
}

std::shared_ptr<SegmentTemplate> parseSegmentTemplate(const Element& element,
                                                      const SharedText& baseURL,
                                                      const SegmentTemplate* parent) {
  const FastString none;
  return std::make_shared<SegmentTemplate>(
      parseMultiSegmentInfo(element, baseURL, parent),
      parseAttribute(element, "initialization", parent ? parent->initializationTemplate() : none),
      parseAttribute(element, "media", parent ? parent->mediaTemplate() : none), baseURL);
}

SegmentTimeline parseSegmentTimeline(const Element& element) {
  SegmentTimeline timeline;
  timeline.reserve(element.childCount());
  int64_t t = 0;
  for (const Element& child : element.children()) {
    if (child.localName() != "S") continue;
    t = parseAttribute<int64_t>(child, "t", t);
    const auto d = parseAttribute<int64_t>(child, "d", -1);
    const int64_t r = parseAttribute<int32_t>(child, "r", 0);
    if (r >= 0) t = timeline.append(t, d, static_cast<uint64_t>(r) + 1);
  }
  return timeline;
}

RangedURI parseInitializationURL(const Element& element, const SharedText& baseURL) {
  return RangedURI(element.getAttributeValue("sourceURL"), baseURL,
                   parseAttribute<Range>(element, "range", Range()));
}

RangedURI parseSegmentURL(const Element& element, const SharedText& baseURL) {
  const SegmentURLText segment = readSegmentURL(element);
  return RangedURI(segment.reference, baseURL, segment.range);
}

}  // namespace mpl::dash
