#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/Error.h"

class QNMutableMovieDownloadProperties;
class QNQualityDownloadInfo;
class QNRangedURL;
class QNResourceDownloadInfo;

// Which resource of a set lies in which file. Most have a file of their own and cost nothing here.
// The others are found once, when the set is made: two resources with the same address and range
// share their file; two that differ compete for it, and whose bytes are there is remembered in the
// properties file under a key of our own:
//   "QNStoredRanges": {"<path below the directory>": "<Range header or empty> <absolute URL>"}
// Guarded by the set's lock.
class QNStoredPlaces {
 public:
  using QualityInfo = std::shared_ptr<QNQualityDownloadInfo>;

  // Walks every resource.
  QNStoredPlaces(std::string downloadPath, std::string manifestName,
                 const std::vector<QualityInfo>& qualities);

  void setProperties(std::shared_ptr<QNMutableMovieDownloadProperties> properties);

  // The path below the directory as the file system knows it; nullopt when nothing may lie there.
  std::optional<std::string> placeOf(const QNResourceDownloadInfo& resource) const;
  std::string pathOf(const std::string& place) const;
  // Why the resource cannot be stored as things are, null when it can. NSPOSIXErrorDomain, EISDIR
  // or EEXIST, with the path.
  platform::ErrorPtr errorFor(const QNResourceDownloadInfo& resource) const;
  // Whether the file at the resource's place, if there is one, holds this resource's bytes.
  bool isStoredFor(const QNResourceDownloadInfo& resource, const std::string& place) const;
  // To be called before the file is put there, so that no kill leaves another's file under its
  // name.
  void willStore(const QNResourceDownloadInfo& resource);
  void didRemove(const std::string& place);

  // The files that hold resources of these qualities; empty when every resource has a file of its
  // own.
  std::unordered_set<std::string> placesKeptBy(const std::vector<QualityInfo>& others) const;
  bool hasSharedPlaces() const { return hasShared_; }
  // Whether several qualities list the file that lies there.
  bool isShared(const std::string& place) const;

 private:
  class Table;

  // The place without a copy, in `buffer` where the reference does not say it; empty: none.
  std::string_view placeOf(const QNRangedURL& resource, std::string& buffer) const;
  void add(const QNRangedURL& resource, size_t quality, Table& table);
  bool isContended(const std::string& place) const {
    return !contended_.empty() && contended_.contains(place);
  }
  std::optional<std::string> ownerOf(const std::string& place) const;

  const std::string downloadPath_;
  const std::string manifestName_;
  std::shared_ptr<QNMutableMovieDownloadProperties> properties_;
  std::unordered_set<std::string> contended_;
  std::unordered_set<uint64_t> shared_;  // hashes of places
  bool hasShared_ = false;
};
