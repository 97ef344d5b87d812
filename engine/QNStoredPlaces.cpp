#include "engine/QNStoredPlaces.h"

#include <bit>
#include <cerrno>
#include <utility>

#include "engine/QNDownloadRecord.h"
#include "engine/QNHash.h"
#include "engine/QNMovieDownloadProperties.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "engine/QNResourcePath.h"
#include "platform/FileManager.h"
#include "playlist/QNRangedURL.h"

namespace {

constexpr const char* kStoredRangesKey = "QNStoredRanges";

// What is stored when this resource is: the exact request.
std::string contentOf(const QNRangedURL& resource) {
  const auto url = resource.resolveURL();
  return resource.rangeHeader().value_or("") + " " + (url ? url->absoluteString() : "");
}

bool isSameContent(const QNRangedURL& a, const QNRangedURL& b) {
  if (a.offset() != b.offset() || a.length() != b.length()) return false;
  if (a.referenceURL() == b.referenceURL() && a.baseURL() == b.baseURL()) return true;
  return contentOf(a) == contentOf(b);
}

std::string placeOfURL(const QNRangedURL& resource) {
  return QNNormalisedPath(QNRelativeResourcePath(resource.referenceURL()));
}

platform::ErrorPtr placeError(int errnum, const std::string& path, const std::string& why) {
  return platform::Error::errorWithDomain(
      platform::NSPOSIXErrorDomain, errnum,
      {{platform::NSLocalizedDescriptionKey, "Cannot store " + path + ": " + why},
       {platform::NSFilePathErrorKey, path}});
}

}  // namespace

// The first resource at each place, by the hash of the place; needed while the set is made only.
class QNStoredPlaces::Table {
 public:
  Table(size_t count, bool foldsCase)
      : slots_(std::bit_ceil(count * 2 + 1)), foldsCase_(foldsCase) {}

  struct Slot {
    uint64_t hash = 0;
    const QNRangedURL* first = nullptr;
    size_t quality = 0;  // of the first resource
  };

  // The resource that was there first, `resource` itself when none was.
  const Slot& firstAt(std::string_view key, const QNRangedURL* resource, size_t quality) {
    const uint64_t hash = QNHash64(key);
    for (size_t i = hash & (slots_.size() - 1);; i = (i + 1) & (slots_.size() - 1)) {
      Slot& slot = slots_[i];
      if (!slot.first) slot = {hash, resource, quality};
      if (slot.first == resource) return slot;
      if (slot.hash == hash && keyOfURL(*slot.first) == key) return slot;
    }
  }

 private:
  std::string keyOfURL(const QNRangedURL& resource) const {
    std::string place = placeOfURL(resource);
    return foldsCase_ ? QNFoldedCase(place) : place;
  }

  std::vector<Slot> slots_;
  const bool foldsCase_;
};

QNStoredPlaces::QNStoredPlaces(std::string downloadPath, std::string manifestName,
                               const std::vector<QualityInfo>& qualities)
    : downloadPath_(std::move(downloadPath)), manifestName_(std::move(manifestName)) {
  findShared(qualities);
}

void QNStoredPlaces::foldCase(const std::vector<QualityInfo>& qualities) {
  foldsCase_ = true;
  contended_.clear();
  shared_.clear();
  findShared(qualities);
}

void QNStoredPlaces::findShared(const std::vector<QualityInfo>& qualities) {
  size_t count = 0;
  for (const auto& quality : qualities)
    count += quality->resources().size();
  Table table(count, foldsCase_);
  for (size_t i = 0; i < qualities.size(); ++i) {
    for (const auto& info : qualities[i]->resources())
      add(*info->resource(), i, table);
  }
}

void QNStoredPlaces::add(const QNRangedURL& resource, size_t quality, Table& table) {
  std::string buffer;
  const std::string_view place = placeOf(resource, buffer);
  if (place.empty()) return;
  const std::string folded = foldsCase_ ? QNFoldedCase(place) : std::string();
  const std::string_view key = foldsCase_ ? folded : place;
  const Table::Slot& slot = table.firstAt(key, &resource, quality);
  if (slot.first == &resource) return;
  // Of three that compete the last two may be the same.
  hasShared_ = true;
  if (!isSameContent(*slot.first, resource)) {
    contended_.insert(std::string(key));
  } else if (slot.quality != quality) {
    shared_.insert(slot.hash);
  }
}

bool QNStoredPlaces::isShared(const std::string& place) const {
  return !shared_.empty() && shared_.contains(QNHash64(keyOf(place)));
}

void QNStoredPlaces::readOwners(const QNDownloadRecord& record,
                                const QNMovieDownloadProperties& properties) {
  if (contended_.empty()) return;
  const auto ranges = properties.objectForKey(kStoredRangesKey);
  for (const std::string& place : contended_) {
    auto owner = record.addressAt(place);
    const platform::JSON* const range = !owner && ranges ? ranges->find(place) : nullptr;
    if (range) owner = range->string();
    if (owner) owners_[place] = *std::move(owner);
  }
}

std::string_view QNStoredPlaces::placeOf(const QNRangedURL& resource, std::string& buffer) const {
  const std::string& reference = resource.referenceURL();
  if (QNIsOrdinaryPath(reference)) {
    return QNRefusalOfPlace(reference, manifestName_, foldsCase_) ? std::string_view() : reference;
  }
  const std::string path = QNRelativeResourcePath(reference);
  if (QNRefusalOfPlace(path, manifestName_, foldsCase_)) return {};
  buffer = QNNormalisedPath(path);
  return buffer;
}

std::optional<std::string> QNStoredPlaces::placeOf(const QNResourceDownloadInfo& resource) const {
  std::string buffer;
  const std::string_view place = placeOf(*resource.resource(), buffer);
  return place.empty() ? std::nullopt : std::optional<std::string>(place);
}

std::string QNStoredPlaces::pathOf(const std::string& place) const {
  return platform::FileManager::pathByAppending(downloadPath_, place);
}

platform::ErrorPtr QNStoredPlaces::errorFor(const QNResourceDownloadInfo& resource) const {
  const std::string path = resource.relativeResourcePath();
  if (const auto refusal = QNRefusalOfPlace(path, manifestName_, foldsCase_))
    return placeError(EISDIR, resource.resourcePath(), *refusal);
  if (contended_.empty()) return nullptr;
  const std::string place = QNNormalisedPath(path);
  if (!isContended(place)) return nullptr;
  const auto owner = owners_.find(keyOf(place));
  if (owner == owners_.end() || owner->second == contentOf(*resource.resource())) return nullptr;
  if (!platform::FileManager::defaultManager().isRegularFile(pathOf(place))) return nullptr;
  return placeError(EEXIST, resource.resourcePath(),
                    "the file holds another resource (" + owner->second + ")");
}

bool QNStoredPlaces::isStoredFor(const QNResourceDownloadInfo& resource,
                                 const std::string& place) const {
  if (!isContended(place)) return true;
  const auto owner = owners_.find(keyOf(place));
  return owner != owners_.end() && owner->second == contentOf(*resource.resource());
}

std::string QNStoredPlaces::addressOf(const QNResourceDownloadInfo& resource) {
  return contentOf(*resource.resource());
}

void QNStoredPlaces::didRecord(const std::string& place, const std::string& address) {
  if (isContended(place)) owners_[keyOf(place)] = address;
}

std::unordered_set<std::string> QNStoredPlaces::placesKeptBy(
    const std::vector<QualityInfo>& others) const {
  std::unordered_set<std::string> places;
  if (!hasShared_) return places;
  for (const auto& quality : others) {
    for (const auto& resource : quality->resources()) {
      const auto place = placeOf(*resource);
      if (place && isStoredFor(*resource, *place)) places.insert(keyOf(*place));
    }
  }
  return places;
}
