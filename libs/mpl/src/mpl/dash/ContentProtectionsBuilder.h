#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "mpl/dash/ContentProtection.h"

namespace mpl::dash {

using ContentProtectionPtr = std::shared_ptr<ContentProtection>;
using ContentProtectionList = std::vector<ContentProtectionPtr>;

// Collects the protections of one AdaptationSet while it is parsed.
//
// A scheme stands for one protection throughout the set: a second record of the same scheme is
// dropped when it is equal, and throws InvalidStateException "Conflicting schemeId URIs" when not.
// The protections of Representations join the set's list; the check that all Representations agree
// is made on a list of their own, to which nothing is added on purpose.
class ContentProtectionsBuilder {
 public:
  void addAdaptationSetProtection(const ContentProtectionPtr& protection);
  // Throws InvalidStateException "Mismatching representation protections defined".
  void endRepresentation();
  // The set's list in order of first appearance.
  ContentProtectionList build();

  static bool containsProtection(const ContentProtectionList& list,
                                 const ContentProtection& protection);
  static void addProtection(ContentProtectionList& list, const ContentProtectionPtr& protection);
  // By scheme, in descending byte order.
  static void sortProtections(ContentProtectionList& list);
  // Same schemes at the same positions; nothing else is compared.
  static bool equalProtections(const ContentProtectionList& a, const ContentProtectionList& b);

 private:
  ContentProtectionList adaptationSetProtections_;
  ContentProtectionList representationProtections_;
  ContentProtectionList currentProtections_;
  bool haveFirstRepresentation_ = false;
  // The set's records by scheme: a hostile MPD may have very many.
  std::unordered_map<std::string_view, const ContentProtection*> byScheme_;
};

}  // namespace mpl::dash
