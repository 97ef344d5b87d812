#pragma once

#include <concepts>
#include <string_view>

#include "mpl/smooth/Constants.h"
#include "qnc/qncFastString.h"
#include "qnc/qncXml.h"

namespace SmoothStreaming {

// The base of the manifest's model classes, which are immutable once the manifest is read.
//
// Errors of all constructors: std::runtime_error "Passed invalid XML element. Expected tag %s but
// got %s" and "Can't retrieve required value %s" with the attribute's name. An empty attribute is
// the same as an absent one; a number that is malformed or does not fit takes the default, 0 where
// there is none.
class Element {
 public:
  Element(const qnc::xml::Element& element, std::string_view expectedTag);

  // The element that this was made from, while its document lives. Media lets go of it: what
  // belongs to a Media has an empty one, so that no model keeps a document alive or outlives it.
  const qnc::xml::Element& rootElement() const { return rootElement_; }

  // The value of an attribute; the default when it is empty and optional.
  static qnc::FastString getElementAttribute(const qnc::xml::Element& element,
                                             std::string_view name, bool optional = false,
                                             std::string_view defaultValue = kNoValue);

  // The same as a decimal number.
  template <std::integral T>
  static T getElementNumber(const qnc::xml::Element& element, std::string_view name,
                            bool optional = false, std::string_view defaultValue = kZeroValue) {
    T value{};
    (void)!qnc::parseDecimal(defaultValue, value);
    (void)!qnc::parseDecimal(elementAttribute(element, name, optional, defaultValue), value);
    return value;
  }

 protected:
  Element() = default;
  ~Element() = default;

 private:
  friend class Media;
  friend class Protection;
  friend class StreamElement;
  static std::string_view elementAttribute(const qnc::xml::Element& element, std::string_view name,
                                           bool optional, std::string_view defaultValue);
  void letGo() { rootElement_ = {}; }

  qnc::xml::Element rootElement_;
};

}  // namespace SmoothStreaming
