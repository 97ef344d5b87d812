#include "playlist/QNInexactRanges.h"

#include <algorithm>

bool isInexactRange(const QNRangedURL& resource) {
  return resource.length() != 0 && resource.offset() != 1;
}

uint64_t inexactRanges(const QNResourceListPtr& resources) {
  if (!resources) return 0;
  return static_cast<uint64_t>(
      std::count_if(resources->begin(), resources->end(),
                    [](const auto& resource) { return isInexactRange(*resource); }));
}
