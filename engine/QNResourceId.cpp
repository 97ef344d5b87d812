#include "engine/QNResourceId.h"

#include <utility>

#include "engine/QNMovieDownloadSet.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "platform/JSON.h"
#include "playlist/QNQuality.h"

namespace {

constexpr const char* kManifestURLKey = "QNManifestURL";
constexpr const char* kQualityIdKey = "QNQualityId";
constexpr const char* kResourceIndexKey = "QNResourceIndex";
constexpr const char* kStatusKey = "QNStatus";

std::optional<std::string> stringUnder(const platform::JSON& json, const char* key) {
  const platform::JSON* const value = json.find(key);
  return value ? value->string() : std::nullopt;
}

uint64_t numberUnder(const platform::JSON& json, const char* key) {
  const platform::JSON* const value = json.find(key);
  return value ? value->unsignedInteger().value_or(0) : 0;
}

}  // namespace

std::shared_ptr<const QNResourceId> QNResourceId::resourceIdWithResource(
    const QNResourceDownloadInfo& resource) {
  std::optional<std::string> manifestURL;
  std::optional<std::string> qualityId;
  if (const auto quality = resource.quality()) {
    qualityId = quality->quality()->identifier();
    if (const auto set = quality->set()) manifestURL = set->sourceURL();
  }
  return std::make_shared<const QNResourceId>(std::move(manifestURL), std::move(qualityId),
                                              resource.index(), resource.status());
}

std::shared_ptr<const QNResourceId> QNResourceId::resourceIdWithJSONString(
    const std::string& text) {
  const platform::JSON json = platform::JSON::parse(text).value_or(platform::JSON());
  return std::make_shared<const QNResourceId>(
      stringUnder(json, kManifestURLKey), stringUnder(json, kQualityIdKey),
      numberUnder(json, kResourceIndexKey), numberUnder(json, kStatusKey));
}

QNResourceId::QNResourceId(std::optional<std::string> manifestURL,
                           std::optional<std::string> qualityId, uint64_t resourceIndex,
                           uint64_t status)
    : manifestURL_(std::move(manifestURL)),
      qualityId_(std::move(qualityId)),
      resourceIndex_(resourceIndex),
      status_(status) {}

std::string QNResourceId::serializeToJSON() const {
  // Written for every resource, twice: without a tree of values.
  std::string text;
  text.reserve(128);
  const auto begin = [&text](const char* key) {
    text += text.empty() ? "{\"" : ",\"";
    text.append(key).append("\":");
  };
  const auto addText = [&](const char* key, const std::optional<std::string>& value) {
    if (!value) return;
    begin(key);
    platform::JSON::appendQuoted(text, *value);
  };
  addText(kManifestURLKey, manifestURL_);
  addText(kQualityIdKey, qualityId_);
  begin(kResourceIndexKey);
  text += std::to_string(resourceIndex_);
  begin(kStatusKey);
  text += std::to_string(status_);
  return text += '}';
}
