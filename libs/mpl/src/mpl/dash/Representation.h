#pragma once

#include <cstdint>
#include <optional>

#include "mpl/RangedURI.h"
#include "mpl/dash/Format.h"
#include "mpl/dash/SegmentBase.h"

namespace mpl::dash {

class SegmentIndex;

// One encoding of an AdaptationSet's content: its media properties and where its segments are.
// Immutable; shared between the tree and whoever lists it later, which keeps the segment
// description alive and nothing else of the tree.
class Representation {
 public:
  static constexpr int32_t kNoRevision = -1;

  Representation(qnc::FastString id, int32_t revisionId, Format format);
  Representation(const Representation&) = delete;
  Representation& operator=(const Representation&) = delete;
  virtual ~Representation();

  const qnc::FastString& id() const { return id_; }
  // No MPD states one: kNoRevision.
  int32_t revisionId() const { return revisionId_; }
  const Format& format() const { return format_; }

  virtual SegmentBase::Type type() const = 0;
  virtual const SegmentBase& segmentBase() const = 0;
  // Empty when there is no initialisation data of its own.
  RangedURI getInitialization() const { return segmentBase().getInitialization(*this); }
  int64_t getPresentationTimeOffsetUs() const {
    return segmentBase().getPresentationTimeOffsetUs();
  }
  // Where the segment index lies that the MPD points to; nullopt when it points to none.
  virtual std::optional<RangedURI> getIndexURI() const = 0;
  // Lives as long as this object.
  virtual const SegmentIndex& getIndex() const = 0;

 private:
  const qnc::FastString id_;
  const int32_t revisionId_;
  const Format format_;
};

}  // namespace mpl::dash
