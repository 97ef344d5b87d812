#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mpl/dash/MultiSegmentBase.h"

namespace mpl::dash {

// The RangedURIs of a SegmentList, in document order: references against one base, their texts in
// one string.
class MediaSegments {
 public:
  explicit MediaSegments(SharedBase base = nullptr) : base_(std::move(base)) {}

  // Throws std::length_error beyond 4 GiB of text.
  void append(std::string_view reference, const Range& range);
  void reserve(size_t count) { ends_.reserve(count); }
  void shrinkToFit();

  bool empty() const { return ends_.empty(); }
  size_t size() const { return ends_.size(); }
  size_t textSize() const { return text_.size(); }  // of all references
  RangedURI operator[](size_t index) const;
  std::string_view reference(size_t index) const;
  Range range(size_t index) const { return ranges_.empty() ? Range() : ranges_[index]; }
  FastString base() const { return base_ ? base_->resolve() : FastString(); }

 private:
  SharedBase base_;
  std::string text_;
  std::vector<uint32_t> ends_;  // of each reference in text_
  std::vector<Range> ranges_;   // empty while every segment is a whole resource
};

// Segments whose URLs are listed one by one.
class SegmentList : public MultiSegmentBase {
 public:
  SegmentList(MultiSegmentInfo info, MediaSegments mediaSegments);

  int64_t getLastSegmentNum(int64_t periodDurationUs) const override;
  RangedURI getSegmentURL(const Representation& representation, int64_t number) const override;
  void forEachSegment(const Representation& representation, int64_t first, int64_t last,
                      const SegmentVisitor& visitor) const override;

  const MediaSegments& mediaSegments() const { return mediaSegments_; }

 private:
  bool countDependsOnPeriod() const override { return false; }
  size_t segmentIndex(int64_t number) const;

  const MediaSegments mediaSegments_;
};

}  // namespace mpl::dash
