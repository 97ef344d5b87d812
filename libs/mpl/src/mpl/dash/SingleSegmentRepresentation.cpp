#include "mpl/dash/SingleSegmentRepresentation.h"

#include <utility>

namespace mpl::dash {

SingleSegmentRepresentation::SingleSegmentRepresentation(
    qnc::FastString id, int32_t revisionId, Format format,
    std::shared_ptr<const SingleSegmentBase> base, int64_t contentLength)
    : Representation(std::move(id), revisionId, std::move(format)),
      base_(std::move(base)),
      contentLength_(contentLength),
      index_(RangedURI(FastString(), base_->sharedURI())) {}

std::optional<RangedURI> SingleSegmentRepresentation::getIndexURI() const {
  if (!base_->hasIndexRange()) return std::nullopt;
  return base_->getIndex();
}

}  // namespace mpl::dash
