#include "platform/BootIdentifier.h"

#include <fstream>

namespace platform {

const std::string& currentBootIdentifier() {
  // Kept for threads that outlive main.
  static const auto& identifier = *new std::string([] {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string text;
    std::getline(file, text);
    return text;
  }());
  return identifier;
}

}  // namespace platform
