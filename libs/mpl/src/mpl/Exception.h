#pragma once

#include <concepts>
#include <cstdint>
#include <stdexcept>

#include "qnc/qncFastString.h"

namespace mpl {

// The value of a four-character tag, first character highest.
consteval uint32_t fourCharacterTag(const char (&text)[5]) {
  uint32_t tag = 0;
  for (int i = 0; i < 4; ++i)
    tag = tag << 8 | static_cast<uint8_t>(text[i]);
  return tag;
}

// What the manifest parsers throw: a standard exception whose what() is the message, with a tag
// that tells the kinds of one base apart.
template <class Base, uint32_t Tag>
class Exception : public Base {
 public:
  static constexpr uint32_t kTag = Tag;

  explicit Exception(const char* message) : Base(message) {}
  explicit Exception(
      const qnc::FastString& message) requires std::same_as<Base, std::invalid_argument>
      : Base(message.str()) {}

  uint32_t tag() const { return Tag; }
};

// The document as a whole cannot be used.
using ParseException = Exception<std::runtime_error, fourCharacterTag("prse")>;
// An AdaptationSet contradicts itself.
using InvalidStateException = Exception<std::runtime_error, fourCharacterTag("ista")>;
// A segment description or template cannot be used, or a segment number lies outside of it.
using InvalidArgumentException = Exception<std::invalid_argument, fourCharacterTag("iarg")>;

}  // namespace mpl
