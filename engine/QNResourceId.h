#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Export.h"

class QNResourceDownloadInfo;

// The identity of one resource download across launches; it is written into the description of the
// resource's task. Immutable. As text one flat JSON object, compact, UTF-8:
//   {"QNManifestURL":string,"QNQualityId":string,"QNResourceIndex":number,"QNStatus":number}
class QN_EXPORT QNResourceId {
 public:
  // A resource whose quality or set is gone gives absent strings.
  static std::shared_ptr<const QNResourceId> resourceIdWithResource(
      const QNResourceDownloadInfo& resource);
  // Never fails: what is absent or of another type reads as absent, respectively 0. Members that it
  // does not know are ignored.
  static std::shared_ptr<const QNResourceId> resourceIdWithJSONString(const std::string& text);

  QNResourceId(std::optional<std::string> manifestURL, std::optional<std::string> qualityId,
               uint64_t resourceIndex, uint64_t status);

  const std::optional<std::string>& manifestURL() const { return manifestURL_; }
  const std::optional<std::string>& qualityId() const { return qualityId_; }
  uint64_t resourceIndex() const { return resourceIndex_; }
  uint64_t status() const { return status_; }  // a QNDownloadStatus, or anything that was read

  // Only for an identity with both strings; absent ones are left out.
  std::string serializeToJSON() const;

 private:
  std::optional<std::string> manifestURL_;
  std::optional<std::string> qualityId_;
  uint64_t resourceIndex_;
  uint64_t status_;
};
