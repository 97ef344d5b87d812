#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "playlist/QNRangedURL.h"

// The requests to make for one quality, in download order. Lists are shared, never copied: a
// quality of a long presentation lists millions.
using QNResourceList = std::vector<std::shared_ptr<QNRangedURL>>;
using QNResourceListPtr = std::shared_ptr<const QNResourceList>;

// Lists the resources of one quality. Owned by its quality, kept alive by whoever needs a list
// later.
class QN_EXPORT QNResourceListBuilder {
 public:
  QNResourceListBuilder() = default;
  QNResourceListBuilder(const QNResourceListBuilder&) = delete;
  QNResourceListBuilder& operator=(const QNResourceListBuilder&) = delete;
  virtual ~QNResourceListBuilder();

  // `baseURL` is the address that relative references resolve against; it is stored with the
  // resources and does not change their reference texts. This class returns null. The builders of
  // parsed manifests return the same list object as long as the base URL is the same, may be called
  // from any thread, and throw platform::Exception "QNPlaylistFactoryException" when the manifest's
  // addressing cannot be built (the parser's message) or when the presentation lists more than it
  // may (QNResourceBudget.h).
  virtual QNResourceListPtr fillResourcesWithBaseURL(const std::optional<std::string>& baseURL);

  // One resource that covers both, or null when their reference texts differ. Bytes between the two
  // are included on purpose: one request replaces two. A resource that covers the other is returned
  // itself. A length of 0 reaches to the end.
  static std::shared_ptr<QNRangedURL> mergeURL(const std::shared_ptr<QNRangedURL>& a,
                                               const std::shared_ptr<QNRangedURL>& b);
  // Runs of neighbours that can be merged, merged; the order is kept.
  static QNResourceList mergeRangedResourceURLs(const QNResourceList& resources);
};
