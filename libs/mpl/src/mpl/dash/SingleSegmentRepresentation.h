#pragma once

#include <cstdint>
#include <memory>

#include "mpl/dash/Representation.h"
#include "mpl/dash/SingleSegmentBase.h"
#include "mpl/dash/SingleSegmentIndex.h"

namespace mpl::dash {

// A Representation that is one resource.
class SingleSegmentRepresentation : public Representation {
 public:
  static constexpr int64_t kUnknownLength = -1;

  // `contentLength` is in bytes.
  SingleSegmentRepresentation(qnc::FastString id, int32_t revisionId, Format format,
                              std::shared_ptr<const SingleSegmentBase> base, int64_t contentLength);

  SegmentBase::Type type() const override { return SegmentBase::Type::Single; }
  const SingleSegmentBase& segmentBase() const override { return *base_; }
  std::optional<RangedURI> getIndexURI() const override;
  const SegmentIndex& getIndex() const override { return index_; }

  // The resolved URL of the media.
  FastString mediaURL() const { return base_->uri(); }
  int64_t contentLength() const { return contentLength_; }

 private:
  const std::shared_ptr<const SingleSegmentBase> base_;
  const int64_t contentLength_;
  const SingleSegmentIndex index_;
};

}  // namespace mpl::dash
