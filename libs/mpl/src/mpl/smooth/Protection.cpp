#include "mpl/smooth/Protection.h"

namespace SmoothStreaming {

Protection::Protection(const qnc::xml::Element& element) : Element(element, kProtectionElement) {
  for (const auto& child : element.children()) {
    if (child.localName() != kProtectionHeaderElement) continue;
    protectionHeaders_.push_back(std::make_shared<ProtectionHeader>(child));
  }
}

void Protection::letGo() {
  Element::letGo();
  for (const auto& header : protectionHeaders_)
    header->letGo();
}

}  // namespace SmoothStreaming
