#pragma once

#include <cstdint>
#include <memory>

#include "mpl/RangedURI.h"

namespace mpl::dash {

class Representation;

using SharedURI = std::shared_ptr<const RangedURI>;

// Where the initialisation data and the media of a Representation are. Immutable; shared by all
// Representations that inherit it.
class SegmentBase {
 public:
  enum class Type : int32_t { Single = 0, Multi = 1 };

  // The timescale is in ticks per second, the offset in ticks. Null or an empty initialisation
  // stands for none.
  SegmentBase(SharedURI initialization, int64_t timescale, int64_t presentationTimeOffset);
  SegmentBase(const SegmentBase&) = delete;
  SegmentBase& operator=(const SegmentBase&) = delete;
  virtual ~SegmentBase();

  virtual Type type() const = 0;
  virtual RangedURI getInitialization(const Representation& representation) const;

  const RangedURI& initialization() const { return *initialization_; }
  const SharedURI& sharedInitialization() const { return initialization_; }
  int64_t timescale() const { return timescale_; }
  int64_t presentationTimeOffset() const { return presentationTimeOffset_; }
  int64_t getPresentationTimeOffsetUs() const;

 private:
  const SharedURI initialization_;
  const int64_t timescale_;
  const int64_t presentationTimeOffset_;
};

}  // namespace mpl::dash
