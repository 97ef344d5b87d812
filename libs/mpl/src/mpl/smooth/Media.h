#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "mpl/smooth/Element.h"
#include "mpl/smooth/Protection.h"
#include "mpl/smooth/StreamElement.h"

namespace SmoothStreaming {

// A Smooth Streaming client manifest, from its root element. Throws what its parts throw.
class Media : public Element {
 public:
  using Version = std::pair<int32_t, int32_t>;  // major, minor

  explicit Media(const qnc::xml::Element& element);

  const Version& version() const { return version_; }
  uint64_t timeScale() const { return timeScale_; }  // units per second
  uint64_t duration() const { return duration_; }    // in time-scale units
  bool isLive() const { return isLive_; }
  uint32_t lookaheadCount() const { return lookaheadCount_; }
  uint64_t DVRWindowLength() const { return dvrWindowLength_; }
  const std::vector<std::shared_ptr<StreamElement>>& streamElements() const {
    return streamElements_;
  }
  // Null when there is none.
  const std::shared_ptr<Protection>& protection() const { return protection_; }

 private:
  Version version_;
  uint64_t timeScale_;
  uint64_t duration_;
  bool isLive_;
  uint32_t lookaheadCount_;
  uint64_t dvrWindowLength_;
  std::vector<std::shared_ptr<StreamElement>> streamElements_;
  std::shared_ptr<Protection> protection_;
};

}  // namespace SmoothStreaming
