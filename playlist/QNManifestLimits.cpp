#include "playlist/QNManifestLimits.h"

#include <string>
#include <string_view>

#include "platform/Exception.h"
#include "playlist/QNPlaylistFactory.h"
#include "qnc/qncChecked.h"

namespace {

using qnc::xml::Element;

// Elements whose children are qualities or lead to them.
bool leadsToQualities(std::string_view name) {
  return name == "MPD" || name == "Period" || name == "AdaptationSet" ||
         name == "SmoothStreamingMedia" || name == "StreamIndex";
}

bool isQuality(std::string_view name) {
  return name == "Representation" || name == "QualityLevel";
}

// The text that every quality below an element takes over from it: from its attributes, from its
// BaseURL and from its segment elements.
uint64_t handedDown(const Element& element) {
  uint64_t size = 0;
  for (const char* name : {"mimeType", "codecs", "lang"})
    size += element.attribute(name).size();
  for (const Element& child : element.children()) {
    const std::string_view name = child.localName();
    if (name == "BaseURL") {
      size += child.text().size();
    } else if (name == "ContentComponent") {
      size += child.attribute("lang").size();
    } else if (name == "SegmentTemplate" || name == "SegmentList" || name == "SegmentBase") {
      size += child.attribute("initialization").size() + child.attribute("media").size();
      size += child.firstChildByName("Initialization").attribute("sourceURL").size();
    }
  }
  return size;
}

class Counter {
 public:
  // `inherited` is what the elements above hand down to this one.
  void count(const Element& element, uint64_t inherited) {
    inheritedBytes_ = qnc::saturatingAdd(inheritedBytes_, inherited);
    const uint64_t below = qnc::saturatingAdd(inherited, handedDown(element));
    for (const Element& child : element.children()) {
      if (isQuality(child.localName())) {
        ++qualities_;
        inheritedBytes_ = qnc::saturatingAdd(inheritedBytes_, below);
      } else if (leadsToQualities(child.localName())) {
        count(child, below);
      }
    }
  }

  uint64_t qualities() const { return qualities_; }
  uint64_t inheritedBytes() const { return inheritedBytes_; }

 private:
  uint64_t qualities_ = 0;
  uint64_t inheritedBytes_ = 0;
};

}  // namespace

void QNManifestLimits::check(const Element& root) {
  if (!leadsToQualities(root.localName())) return;
  Counter counter;
  counter.count(root, 0);
  if (counter.qualities() > MaximumQualities) {
    throw platform::Exception(QNPlaylistFactoryException,
                              "The manifest has " + std::to_string(counter.qualities()) +
                                  " qualities, more than " + std::to_string(MaximumQualities));
  }
  if (counter.inheritedBytes() > MaximumInheritedBytes) {
    throw platform::Exception(
        QNPlaylistFactoryException,
        "The manifest hands down " + std::to_string(counter.inheritedBytes()) +
            " bytes of text to its qualities, more than " + std::to_string(MaximumInheritedBytes));
  }
}
