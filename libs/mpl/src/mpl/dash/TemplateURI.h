#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qnc/qncFastString.h"

namespace mpl::dash {

// A segment URL template (ISO/IEC 23009-1 section 5.3.9.4.4), ready to build the URLs of one
// Representation: its id and bandwidth are in place, number and time are open.
//
//   "$$"                               a dollar sign
//   "$RepresentationID$"               never with a width
//   "$Number$" "$Bandwidth$" "$Time$"  decimal, with a width as in "$Number%05d$"
//
// The constructor throws InvalidArgumentException: "Mismatching $-tokens in template URI", "Invalid
// template format: %s" with the width format ("%5d"; also for a width above kMaxWidth), "Invalid
// template: %s" with the token ("$Foo$"), "Template URI too long" when a URL could be longer than
// kMaxLength.
class TemplateURI {
 public:
  static constexpr uint32_t kMaxWidth = 1000;
  static constexpr size_t kMaxLength = size_t{1} << 20;

  TemplateURI(std::string_view text, std::string_view representationId, int32_t bandwidth);

  // The URL of one segment.
  static qnc::FastString build(std::string_view text, std::string_view representationId,
                               int32_t number, int32_t bandwidth, int64_t time);
  void append(std::string& out, int32_t number, int64_t time) const;
  // No URL comes out longer than this.
  size_t maximumLength() const { return longest_; }

  // The template whose URLs are this one's resolved against `base`, so that a list of segments
  // resolves once. nullopt in the rare case that this cannot be told beforehand.
  std::optional<TemplateURI> resolvedAgainst(std::string_view base) const;

 private:
  enum class Value : uint8_t { None, Number, Time };
  // A stretch of literals_ and the value after it.
  struct Piece {
    uint32_t begin = 0;
    uint32_t size = 0;
    Value value = Value::None;
    uint16_t width = 0;
  };

  TemplateURI() = default;
  void addToken(std::string_view token, std::string_view representationId, int32_t bandwidth);
  void addLiteral(std::string_view text);
  void addNumber(int64_t value, uint32_t width);
  void addSlot(Value value, uint32_t width);
  void grow(size_t size);

  std::string literals_;
  std::vector<Piece> pieces_{Piece{}};
  size_t longest_ = 0;  // of the URLs that can come out
};

}  // namespace mpl::dash
