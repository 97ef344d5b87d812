#pragma once

#include <concepts>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "qnc/qncFastString.h"
#include "qnc/qncXml.h"

namespace mpl::dash {

// Reads a value type (XSDate::parse tells the contract) and accepts it only when something was
// consumed and `terminator` follows: with NUL, the whole text.
template <class T>
T parse(const char* text, const T& defaultValue, char terminator = '\0') {
  const char* end = text;
  const T value = T::parse(text, &end, defaultValue);
  return end != text && *end == terminator ? value : defaultValue;
}

// The attribute with this local name, or the default: for a string when it is absent or empty, for
// anything else unless the whole text can be read. Integers are decimal with an optional sign; one
// that does not fit takes the default.
template <class T>
T parseAttribute(const qnc::xml::Element& element, std::string_view name, const T& defaultValue) {
  const std::string_view text = element.attribute(name);
  if constexpr (std::is_same_v<T, qnc::FastString>) {
    return text.empty() ? defaultValue : T(text);
  } else if constexpr (std::integral<T>) {
    T value = defaultValue;
    (void)!qnc::parseDecimal(text, value);
    return value;
  } else {
    return text.empty() ? defaultValue : parse<T>(text.data(), defaultValue);
  }
}

// The text of an element, or the default when it is empty.
template <std::same_as<qnc::FastString> T>
T parseNode(const qnc::xml::Element& element, const T& defaultValue) {
  const std::string_view text = element.text();
  return text.empty() ? defaultValue : T(text);
}
// Whether the text, which goes to `out`, is non-empty.
bool readNode(const qnc::xml::Element& element, qnc::FastString& out);

// xs:duration in milliseconds and xs:dateTime in milliseconds since the epoch; the default when
// absent or invalid, also when 64 bits cannot hold it. A date before 1970 is -1.
int64_t parseDuration(const qnc::xml::Element& element, std::string_view name, int64_t defaultMs);
int64_t parseDateTime(const qnc::xml::Element& element, std::string_view name, int64_t defaultMs);

}  // namespace mpl::dash
