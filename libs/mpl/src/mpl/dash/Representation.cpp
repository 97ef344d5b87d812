#include "mpl/dash/Representation.h"

#include <utility>

namespace mpl::dash {

Representation::Representation(qnc::FastString id, int32_t revisionId, Format format)
    : id_(std::move(id)), revisionId_(revisionId), format_(std::move(format)) {}

Representation::~Representation() = default;

}  // namespace mpl::dash
