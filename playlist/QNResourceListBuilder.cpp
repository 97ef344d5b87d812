#include "playlist/QNResourceListBuilder.h"

#include <algorithm>
#include <limits>

namespace {

constexpr uint64_t kEndOfResource = std::numeric_limits<uint64_t>::max();

uint64_t endOf(const QNRangedURL& resource) {
  return resource.length() == 0 ? kEndOfResource : resource.offset() + resource.length();
}

}  // namespace

QNResourceListBuilder::~QNResourceListBuilder() = default;

QNResourceListPtr QNResourceListBuilder::fillResourcesWithBaseURL(
    const std::optional<std::string>&) {
  return nullptr;
}

std::shared_ptr<QNRangedURL> QNResourceListBuilder::mergeURL(
    const std::shared_ptr<QNRangedURL>& a, const std::shared_ptr<QNRangedURL>& b) {
  if (a->referenceURL() != b->referenceURL()) return nullptr;
  const uint64_t aStart = a->offset();
  const uint64_t aEnd = endOf(*a);
  const uint64_t bStart = b->offset();
  const uint64_t bEnd = endOf(*b);
  uint64_t start = aStart;
  uint64_t end = bEnd;
  if (bStart < aStart) {
    if (aEnd <= bEnd) return b;
    start = bStart;
    end = aEnd;
  } else {
    if (bEnd <= aEnd) return a;
    if (aStart == bStart) return b;
  }
  const uint64_t length = end == kEndOfResource ? 0 : end - start;
  return QNRangedURL::rangedURLWithOffset(start, length, a->referenceURL(), a->sharedBaseURL());
}

QNResourceList QNResourceListBuilder::mergeRangedResourceURLs(const QNResourceList& resources) {
  QNResourceList merged;
  merged.reserve(resources.size());
  std::shared_ptr<QNRangedURL> current;
  for (const auto& resource : resources) {
    if (!current) {
      current = resource;
    } else if (auto both = mergeURL(current, resource)) {
      current = std::move(both);
    } else {
      merged.push_back(std::move(current));
      current = resource;
    }
  }
  if (current) merged.push_back(std::move(current));
  return merged;
}
