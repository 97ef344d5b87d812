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

SharedURI parseSharedInitialization(const Element& element, const SharedBase& baseURL) {
  return std::make_shared<const RangedURI>(parseInitializationURL(element, baseURL));
}

SharedText sharedAttribute(const Element& element, std::string_view name, SharedText inherited) {
  const std::string_view text = element.attribute(name);
  return text.empty() ? std::move(inherited) : std::make_shared<const FastString>(text);
}

// What lists and templates have in common.
MultiSegmentInfo parseMultiSegmentInfo(const Element& element, const SharedBase& baseURL,
                                       const MultiSegmentBase* parent) {
  MultiSegmentInfo info;
  if (parent) {
    info = {parent->sharedInitialization(), parent->timescale(), parent->presentationTimeOffset(),
            parent->startNumber(),          parent->duration(),  parent->sharedTimeline()};
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
      info.initialization = parseSharedInitialization(child, baseURL);
    } else if (name == "SegmentTimeline") {
      own = std::make_shared<const SegmentTimeline>(parseSegmentTimeline(child));
    }
  }
  if (own && !own->empty()) info.timeline = std::move(own);
  return info;
}

}  // namespace

std::shared_ptr<SingleSegmentBase> parseSegmentBase(const Element& element,
                                                    const SharedBase& baseURL,
                                                    const SingleSegmentBase* parent) {
  const int64_t timescale =
      parseAttribute<int64_t>(element, "timescale", parent ? parent->timescale() : 1);
  const int64_t offset = parseAttribute<int64_t>(element, "presentationTimeOffset",
                                                 parent ? parent->presentationTimeOffset() : 0);
  const Range index =
      parseAttribute<Range>(element, "indexRange", parent ? parent->getIndex().range() : Range());
  SharedURI initialization = parent ? parent->sharedInitialization() : nullptr;
  for (const Element& child : element.children()) {
    if (child.localName() == "Initialization") {
      initialization = parseSharedInitialization(child, baseURL);
    }
  }
  const int64_t indexEnd =
      index.length == Range::kToEnd ? Range::kToEnd : index.offset + (index.length - 1);
  return std::make_shared<SingleSegmentBase>(std::move(initialization), timescale, offset, baseURL,
                                             index.offset, indexEnd);
}

std::shared_ptr<SegmentList> parseSegmentList(const Element& element, const SharedBase& baseURL,
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
                                                      const SharedBase& baseURL,
                                                      const SegmentTemplate* parent) {
  return std::make_shared<SegmentTemplate>(
      parseMultiSegmentInfo(element, baseURL, parent),
      sharedAttribute(element, "initialization",
                      parent ? parent->sharedInitializationTemplate() : nullptr),
      sharedAttribute(element, "media", parent ? parent->sharedMediaTemplate() : nullptr), baseURL);
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

RangedURI parseInitializationURL(const Element& element, const SharedBase& baseURL) {
  return RangedURI(element.getAttributeValue("sourceURL"), baseURL,
                   parseAttribute<Range>(element, "range", Range()));
}

RangedURI parseSegmentURL(const Element& element, const SharedBase& baseURL) {
  const SegmentURLText segment = readSegmentURL(element);
  return RangedURI(FastString(segment.reference), baseURL, segment.range);
}

}  // namespace mpl::dash
