#include "engine/QNStoredPlaces.h"

#include <bit>
#include <cerrno>
#include <utility>

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
  explicit Table(size_t count) : slots_(std::bit_ceil(count * 2 + 1)) {}

  struct Slot {
    uint64_t hash = 0;
    const QNRangedURL* first = nullptr;
    size_t quality = 0;  // of the first resource
  };

  // The resource that was there first, `resource` itself when none was.
  const Slot& firstAt(std::string_view place, const QNRangedURL* resource, size_t quality) {
    const uint64_t hash = QNHash64(place);
    for (size_t i = hash & (slots_.size() - 1);; i = (i + 1) & (slots_.size() - 1)) {
      Slot& slot = slots_[i];
      if (!slot.first) slot = {hash, resource, quality};
      if (slot.first == resource) return slot;
      if (slot.hash == hash && placeOfURL(*slot.first) == place) return slot;
    }
  }

 private:
  std::vector<Slot> slots_;
};

QNStoredPlaces::QNStoredPlaces(std::string downloadPath, std::string manifestName,
                               const std::vector<QualityInfo>& qualities)
    : downloadPath_(std::move(downloadPath)), manifestName_(std::move(manifestName)) {
  size_t count = 0;
  for (const auto& quality : qualities)
    count += quality->resources().size();
  Table table(count);
  for (size_t i = 0; i < qualities.size(); ++i) {
    for (const auto& info : qualities[i]->resources())
      add(*info->resource(), i, table);
  }
}

void QNStoredPlaces::add(const QNRangedURL& resource, size_t quality, Table& table) {
  std::string buffer;
  const std::string_view place = placeOf(resource, buffer);
  if (place.empty()) return;
  const Table::Slot& slot = table.firstAt(place, &resource, quality);
  if (slot.first == &resource) return;
  // Of three that compete the last two may be the same.
  hasShared_ = true;
  if (!isSameContent(*slot.first, resource)) {
    contended_.insert(std::string(place));
  } else if (slot.quality != quality) {
    shared_.insert(slot.hash);
  }
}

bool QNStoredPlaces::isShared(const std::string& place) const {
  return !shared_.empty() && shared_.contains(QNHash64(place));
}

void QNStoredPlaces::setProperties(std::shared_ptr<QNMutableMovieDownloadProperties> properties) {
  properties_ = std::move(properties);
}

std::string_view QNStoredPlaces::placeOf(const QNRangedURL& resource, std::string& buffer) const {
  const std::string& reference = resource.referenceURL();
  if (QNIsOrdinaryPath(reference)) {
    return QNRefusalOfPlace(reference, manifestName_) ? std::string_view() : reference;
  }
  const std::string path = QNRelativeResourcePath(reference);
  if (QNRefusalOfPlace(path, manifestName_)) return {};
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
  if (const auto refusal = QNRefusalOfPlace(path, manifestName_))
    return placeError(EISDIR, resource.resourcePath(), *refusal);
  if (contended_.empty()) return nullptr;
  const std::string place = QNNormalisedPath(path);
  if (!isContended(place)) return nullptr;
  const auto owner = ownerOf(place);
  if (!owner || *owner == contentOf(*resource.resource())) return nullptr;
  if (!platform::FileManager::defaultManager().isRegularFile(pathOf(place))) return nullptr;
  return placeError(EEXIST, resource.resourcePath(),
                    "the file holds another resource (" + *owner + ")");
}

bool QNStoredPlaces::isStoredFor(const QNResourceDownloadInfo& resource,
                                 const std::string& place) const {
  return !isContended(place) || ownerOf(place) == contentOf(*resource.resource());
}

void QNStoredPlaces::willStore(const QNResourceDownloadInfo& resource) {
  if (contended_.empty()) return;
  const auto place = placeOf(resource);
  if (!place || !isContended(*place)) return;
  const std::string content = contentOf(*resource.resource());
  if (ownerOf(*place) == content) return;
  auto ranges = properties_->objectForKey(kStoredRangesKey).value_or(platform::JSON::object());
  ranges.set(*place, content);
  properties_->setObjectForKey(std::move(ranges), kStoredRangesKey);
}

void QNStoredPlaces::didRemove(const std::string& place) {
  if (!isContended(place) || !ownerOf(place)) return;
  auto ranges = *properties_->objectForKey(kStoredRangesKey);
  ranges.remove(place);
  properties_->setObjectForKey(std::move(ranges), kStoredRangesKey);
}

std::optional<std::string> QNStoredPlaces::ownerOf(const std::string& place) const {
  const auto ranges = properties_ ? properties_->objectForKey(kStoredRangesKey) : std::nullopt;
  const platform::JSON* const owner = ranges ? ranges->find(place) : nullptr;
  return owner ? owner->string() : std::nullopt;
}

std::unordered_set<std::string> QNStoredPlaces::placesKeptBy(
    const std::vector<QualityInfo>& others) const {
  std::unordered_set<std::string> places;
  if (!hasShared_) return places;
  for (const auto& quality : others) {
    for (const auto& resource : quality->resources()) {
      auto place = placeOf(*resource);
      if (place && isStoredFor(*resource, *place)) places.insert(std::move(*place));
    }
  }
  return places;
}
