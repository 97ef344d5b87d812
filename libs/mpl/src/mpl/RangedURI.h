#pragma once

#include <utility>

#include "mpl/Range.h"
#include "mpl/ReferenceURI.h"

namespace mpl {

// A byte range of the resource that a reference names; by default the whole of it.
class RangedURI {
 public:
  RangedURI() = default;
  explicit RangedURI(FastString reference, SharedBase base = nullptr, Range range = {})
      : uri_(std::move(reference), std::move(base)), range_(range) {}

  const ReferenceURI& uri() const { return uri_; }
  const FastString& reference() const { return uri_.reference(); }
  FastString base() const { return uri_.base(); }
  const Range& range() const { return range_; }
  FastString resolve() const { return uri_.resolve(); }
  // Names no resource, whatever the range.
  bool isEmpty() const { return uri_.isEmpty(); }

  bool operator==(const RangedURI&) const = default;

 private:
  ReferenceURI uri_;
  Range range_;
};

}  // namespace mpl
