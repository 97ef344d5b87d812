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

#include "engine/QNResourcePath.h"
#include "platform/Error.h"

class QNDownloadRecord;
class QNMovieDownloadProperties;
class QNQualityDownloadInfo;
class QNRangedURL;
class QNResourceDownloadInfo;

// Which resource of a set lies in which file. Most have a file of their own and cost nothing here.
// The others are found once, when the set is made: two resources with the same address and range
// share their file; two that differ compete for it, and whose bytes are there is what the
// download's record says. Before there were records the properties file said it, under a key of our
// own that is read and not written any more:
//   "QNStoredRanges": {"<path below the directory>": "<Range header or empty> <absolute URL>"}
// Guarded by the set's lock.
class QNStoredPlaces {
 public:
  using QualityInfo = std::shared_ptr<QNQualityDownloadInfo>;

  // Walks every resource.
  QNStoredPlaces(std::string downloadPath, std::string manifestName,
                 const std::vector<QualityInfo>& qualities);

  // For a directory in which names that differ in the case of their letters are one file: walks
  // every resource again.
  void foldCase(const std::vector<QualityInfo>& qualities);
  // What two places that are one file have in common; what the record calls a place.
  std::string keyOf(const std::string& place) const {
    return foldsCase_ ? QNFoldedCase(place) : place;
  }
  // Learns whose bytes lie where resources compete.
  void readOwners(const QNDownloadRecord& record, const QNMovieDownloadProperties& properties);

  // The path below the directory as the file system knows it; nullopt when nothing may lie there.
  std::optional<std::string> placeOf(const QNResourceDownloadInfo& resource) const;
  std::string pathOf(const std::string& place) const;
  // Why the resource cannot be stored as things are, null when it can. NSPOSIXErrorDomain, EISDIR
  // or EEXIST, with the path.
  platform::ErrorPtr errorFor(const QNResourceDownloadInfo& resource) const;
  // Whether the file at the resource's place, if there is one, holds this resource's bytes.
  bool isStoredFor(const QNResourceDownloadInfo& resource, const std::string& place) const;
  // Whether resources with other bytes have this place, too.
  bool isContended(const std::string& place) const {
    return !contended_.empty() && contended_.contains(keyOf(place));
  }
  // Whether a file at this place is nobody's: resources compete for it, and none is known to own
  // it.
  bool isUnowned(const std::string& place) const {
    return isContended(place) && !owners_.contains(keyOf(place));
  }
  // What is stored when this resource is: the exact request.
  static std::string addressOf(const QNResourceDownloadInfo& resource);
  void didRecord(const std::string& place, const std::string& address);
  void didRemove(const std::string& place) { owners_.erase(keyOf(place)); }

  // The keys of the files that hold resources of these qualities; empty when every resource has a
  // file of its own.
  std::unordered_set<std::string> placesKeptBy(const std::vector<QualityInfo>& others) const;
  bool hasSharedPlaces() const { return hasShared_; }
  // Whether several qualities list the file that lies there.
  bool isShared(const std::string& place) const;

 private:
  class Table;

  // The place without a copy, in `buffer` where the reference does not say it; empty: none.
  std::string_view placeOf(const QNRangedURL& resource, std::string& buffer) const;
  void findShared(const std::vector<QualityInfo>& qualities);
  void add(const QNRangedURL& resource, size_t quality, Table& table);

  const std::string downloadPath_;
  const std::string manifestName_;
  // By their keys.
  std::unordered_set<std::string> contended_;
  std::unordered_map<std::string, std::string> owners_;  // addresses, of contended places
  std::unordered_set<uint64_t> shared_;                  // hashes of the keys
  bool hasShared_ = false;
  bool foldsCase_ = false;
};
