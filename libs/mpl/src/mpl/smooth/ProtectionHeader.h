#pragma once

#include "mpl/smooth/Element.h"

namespace SmoothStreaming {

// What one protection system needs.
class ProtectionHeader : public Element {
 public:
  explicit ProtectionHeader(const qnc::xml::Element& element)
      : Element(element, kProtectionHeaderElement),
        systemID_(getElementAttribute(element, kSystemIdAttr)),
        contents_(element.getText()) {}

  const qnc::FastString& systemID() const { return systemID_; }
  // The element's text as given, not decoded.
  const qnc::FastString& contents() const { return contents_; }

 private:
  qnc::FastString systemID_;
  qnc::FastString contents_;
};

}  // namespace SmoothStreaming
