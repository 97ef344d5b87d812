#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "mpl/RangedURI.h"
#include "mpl/smooth/Element.h"
#include "mpl/smooth/Stream.h"
#include "mpl/smooth/StreamFragmentElements.h"
#include "mpl/smooth/TrackElement.h"

namespace SmoothStreaming {

// A "StreamIndex": a stream with its quality levels and its fragment timeline. Shared between the
// Media and whoever lists fragments later.
class StreamElement : public Element {
 public:
  // Gets the relative address of a fragment, which lives for the call.
  using URLVisitor = std::function<void(std::string_view reference)>;

  // Throws std::runtime_error "Unsupported Type value", and what its parts throw.
  static std::shared_ptr<StreamElement> create(const qnc::xml::Element& element);

  Stream::Type type() const { return type_; }
  Stream::Subtype subType() const { return subType_; }
  uint64_t timeScale() const { return timeScale_; }  // units per second
  const qnc::FastString& name() const { return name_; }
  uint64_t numberOfFragments() const { return numberOfFragments_; }  // as stated
  uint32_t numberOfTracks() const { return numberOfTracks_; }        // as stated
  // The template of fragment addresses, with "{bitrate}" and "{start time}".
  const qnc::FastString& url() const { return url_; }
  uint32_t maxWidth() const { return maxWidth_; }
  uint32_t maxHeight() const { return maxHeight_; }
  uint32_t displayWidth() const { return displayWidth_; }
  uint32_t displayHeight() const { return displayHeight_; }
  const qnc::FastString& parentStream() const { return parentStream_; }
  bool manifestOutput() const { return manifestOutput_; }
  const std::vector<std::shared_ptr<TrackElement>>& trackElements() const { return trackElements_; }
  const StreamFragmentElements& streamFragmentElements() const { return streamFragmentElements_; }

  // How many fragments are listed: as many as the timeline yields, and no more than stated. Costs
  // no listing; ask before listing what an unknown manifest promises.
  uint64_t listedFragments() const;
  // One entry for each listed fragment, in order. Throws std::invalid_argument "trackElementIndex
  // shall be less than number of available tracks".
  void fillListOfURL(const qnc::FastString& baseURL, size_t trackElementIndex,
                     std::vector<mpl::RangedURI>& out) const;
  // The same without the list. An exception of the visitor ends it.
  void forEachURL(size_t trackElementIndex, const URLVisitor& visitor) const;

 private:
  friend class Media;
  explicit StreamElement(const qnc::xml::Element& element);
  void readChildren(const qnc::xml::Element& element, const std::weak_ptr<StreamElement>& self);
  void letGo();

  Stream::Type type_;
  Stream::Subtype subType_;
  uint64_t timeScale_;
  qnc::FastString name_;
  uint64_t numberOfFragments_;
  uint32_t numberOfTracks_;
  qnc::FastString url_;
  uint32_t maxWidth_;
  uint32_t maxHeight_;
  uint32_t displayWidth_;
  uint32_t displayHeight_;
  qnc::FastString parentStream_;
  bool manifestOutput_;
  std::vector<std::shared_ptr<TrackElement>> trackElements_;
  StreamFragmentElements streamFragmentElements_;
};

}  // namespace SmoothStreaming
