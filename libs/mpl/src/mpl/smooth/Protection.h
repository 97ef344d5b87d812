#pragma once

#include <memory>
#include <vector>

#include "mpl/smooth/Element.h"
#include "mpl/smooth/ProtectionHeader.h"

namespace SmoothStreaming {

class Protection : public Element {
 public:
  explicit Protection(const qnc::xml::Element& element);

  const std::vector<std::shared_ptr<ProtectionHeader>>& protectionHeaders() const {
    return protectionHeaders_;
  }

 private:
  friend class Media;
  void letGo();

  std::vector<std::shared_ptr<ProtectionHeader>> protectionHeaders_;
};

}  // namespace SmoothStreaming
