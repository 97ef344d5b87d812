#include "mpl/smooth/Element.h"

#include <stdexcept>
#include <string>

namespace SmoothStreaming {

Element::Element(const qnc::xml::Element& element, std::string_view expectedTag)
    : rootElement_(element) {
  const std::string_view tag = element.localName();
  if (tag == expectedTag) return;
  throw std::runtime_error(std::string("Passed invalid XML element. Expected tag ")
                               .append(expectedTag)
                               .append(" but got ")
                               .append(tag));
}

std::string_view Element::elementAttribute(const qnc::xml::Element& element, std::string_view name,
                                           bool optional, std::string_view defaultValue) {
  const std::string_view value = element.attribute(name);
  if (!value.empty()) return value;
  if (optional) return defaultValue;
  throw std::runtime_error(std::string("Can't retrieve required value ").append(name));
}

qnc::FastString Element::getElementAttribute(const qnc::xml::Element& element,
                                             std::string_view name, bool optional,
                                             std::string_view defaultValue) {
  return qnc::FastString(elementAttribute(element, name, optional, defaultValue));
}

}  // namespace SmoothStreaming
