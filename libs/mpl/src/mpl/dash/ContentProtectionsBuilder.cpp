#include "mpl/dash/ContentProtectionsBuilder.h"

#include <algorithm>

#include "mpl/Exception.h"

namespace mpl::dash {

namespace {

// `a` and `b` have the same scheme.
void requireEqual(const ContentProtection& a, const ContentProtection& b) {
  if (a.systemId() != b.systemId() || a.schemeInitData() != b.schemeInitData()) {
    throw InvalidStateException("Conflicting schemeId URIs");
  }
}

}  // namespace

bool ContentProtectionsBuilder::containsProtection(const ContentProtectionList& list,
                                                   const ContentProtection& protection) {
  for (const auto& entry : list) {
    if (entry->schemeIdUri() != protection.schemeIdUri()) continue;
    requireEqual(*entry, protection);
    return true;
  }
  return false;
}

void ContentProtectionsBuilder::addProtection(ContentProtectionList& list,
                                              const ContentProtectionPtr& protection) {
  if (!containsProtection(list, *protection)) list.push_back(protection);
}

void ContentProtectionsBuilder::sortProtections(ContentProtectionList& list) {
  std::sort(list.begin(), list.end(),
            [](const auto& a, const auto& b) { return a->schemeIdUri() > b->schemeIdUri(); });
}

bool ContentProtectionsBuilder::equalProtections(const ContentProtectionList& a,
                                                 const ContentProtectionList& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
    return x->schemeIdUri() == y->schemeIdUri();
  });
}

void ContentProtectionsBuilder::addAdaptationSetProtection(const ContentProtectionPtr& protection) {
  // addProtection, with the walk replaced by the table.
  const auto [at, added] = byScheme_.emplace(protection->schemeIdUri(), protection.get());
  if (added) {
    adaptationSetProtections_.push_back(protection);
  } else {
    requireEqual(*at->second, *protection);
  }
}

void ContentProtectionsBuilder::endRepresentation() {
  sortProtections(currentProtections_);
  if (!haveFirstRepresentation_) {
    representationProtections_ = currentProtections_;
    haveFirstRepresentation_ = true;
  } else if (!equalProtections(representationProtections_, currentProtections_)) {
    throw InvalidStateException("Mismatching representation protections defined");
  }
}

ContentProtectionList ContentProtectionsBuilder::build() {
  if (adaptationSetProtections_.empty()) return representationProtections_;
  for (const auto& protection : representationProtections_) {
    addProtection(adaptationSetProtections_, protection);
  }
  return adaptationSetProtections_;
}

}  // namespace mpl::dash
