#include "mpl/dash/SegmentList.h"

#include <limits>
#include <stdexcept>
#include <utility>

#include "qnc/qncChecked.h"

namespace mpl::dash {

void MediaSegments::append(std::string_view reference, const Range& range) {
  if (reference.size() > std::numeric_limits<uint32_t>::max() - text_.size()) {
    throw std::length_error("SegmentList too long");
  }
  if (!range.isWhole() && ranges_.empty()) ranges_.resize(ends_.size());
  const bool ranged = !range.isWhole() || !ranges_.empty();
  text_.append(reference);
  ends_.push_back(static_cast<uint32_t>(text_.size()));
  if (ranged) ranges_.push_back(range);
}

void MediaSegments::shrinkToFit() {
  text_.shrink_to_fit();
  ends_.shrink_to_fit();
  ranges_.shrink_to_fit();
}

std::string_view MediaSegments::reference(size_t index) const {
  const size_t begin = index == 0 ? 0 : ends_[index - 1];
  return std::string_view(text_).substr(begin, ends_[index] - begin);
}

RangedURI MediaSegments::operator[](size_t index) const {
  return RangedURI(FastString(reference(index)), base_, range(index));
}

SegmentList::SegmentList(MultiSegmentInfo info, MediaSegments mediaSegments)
    : MultiSegmentBase(std::move(info)), mediaSegments_(std::move(mediaSegments)) {}

int64_t SegmentList::getLastSegmentNum(int64_t) const {
  return startNumber() + static_cast<int64_t>(mediaSegments_.size()) - 1;
}

size_t SegmentList::segmentIndex(int64_t number) const {
  int64_t index = 0;
  if (!qnc::checkedSub(number, int64_t{startNumber()}, index) || index < 0 ||
      static_cast<uint64_t>(index) >= mediaSegments_.size()) {
    throwOutOfRange();
  }
  return static_cast<size_t>(index);
}

RangedURI SegmentList::getSegmentURL(const Representation&, int64_t number) const {
  return mediaSegments_[segmentIndex(number)];
}

void SegmentList::forEachSegment(const Representation&, int64_t first, int64_t last,
                                 const SegmentVisitor& visitor) const {
  if (last < first) return;
  const size_t end = segmentIndex(last) + 1;
  const ReferenceResolver resolver(mediaSegments_.base());
  std::string uri;
  int64_t number = first;
  for (size_t i = segmentIndex(first); i < end; ++i, ++number) {
    resolver.resolve(mediaSegments_.reference(i), uri);
    visitor(ListedSegment{number, uri, mediaSegments_.range(i)});
  }
}

}  // namespace mpl::dash
