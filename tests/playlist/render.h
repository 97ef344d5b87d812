#pragma once

#include <string>

#include "playlist/QNResourceListBuilder.h"

// A resource list as one line: "reference[offset,length]" each, the brackets only where there is a
// range.
inline std::string render(const QNResourceList& list) {
  std::string line;
  for (const auto& resource : list) {
    if (!line.empty()) line += " ";
    line += resource->referenceURL();
    if (resource->hasRange()) {
      line +=
          "[" + std::to_string(resource->offset()) + "," + std::to_string(resource->length()) + "]";
    }
  }
  return line;
}

inline std::string render(const QNResourceListPtr& list) {
  return list ? render(*list) : "(null)";
}
