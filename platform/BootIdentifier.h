#pragma once

#include <string>

#include "platform/Export.h"

namespace platform {

// What tells this boot of the machine from every other one; empty when the system does not say. An
// empty identifier is equal to no boot's, not even to another empty one: whoever compares takes it
// for another boot, after which only what was flushed is known to be on the disk.
QN_EXPORT const std::string& currentBootIdentifier();

inline bool isSameBoot(const std::string& a, const std::string& b) {
  return !a.empty() && a == b;
}

}  // namespace platform
