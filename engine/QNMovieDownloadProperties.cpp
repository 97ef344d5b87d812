#include "engine/QNMovieDownloadProperties.h"

#include <cerrno>
#include <map>
#include <string_view>
#include <utility>

#include "engine/QNEngineLog.h"
#include "platform/DispatchQueue.h"
#include "platform/Error.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/URL.h"
#include "platform/host/QNLog.h"

using platform::FileManager;
using platform::JSON;
using platform::RecursiveLock;

namespace {

constexpr int kWriterLogLevel = 0;
constexpr int64_t kLongestFile = int64_t{64} << 20;

bool isOutOfRoom(const platform::Error& error) {
  return error.code() == ENOSPC || error.code() == EDQUOT || error.code() == EFBIG ||
         error.code() == EIO;
}

[[noreturn]] void failInconsistently(const char* description, int64_t line) {
  throw platform::Exception(platform::NSInternalInconsistencyException, description,
                            {{"source", std::string("QNMovieDownloadProperties")}, {"line", line}});
}

bool hasString(const JSON& json, const char* key, const std::string& value) {
  const JSON* const member = json.find(key);
  return member && member->string() == value;
}

// The objects that are alive, by the path of their file.
struct Registry {
  platform::Mutex mutex;
  std::map<std::string, std::weak_ptr<QNMutableMovieDownloadProperties>> objects GUARDED_BY(mutex);
};

// Never destroyed: objects may outlive static ones.
Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

}  // namespace

std::shared_ptr<QNMovieDownloadProperties> QNMovieDownloadProperties::propertiesWithLocalPath(
    const std::string& localPath, const std::string& jsonName) {
  return QNMutableMovieDownloadProperties::propertiesWithLocalPath(localPath, jsonName);
}

QNMovieDownloadProperties::QNMovieDownloadProperties(std::string localPath,
                                                     const std::string& jsonName)
    : localPath_(std::move(localPath)),
      jsonPath_(FileManager::pathByAppending(localPath_, jsonName)) {}

QNMovieDownloadProperties::~QNMovieDownloadProperties() = default;

bool QNMovieDownloadProperties::_readJSON() {
  platform::ErrorPtr failure;
  const auto bytes =
      FileManager::defaultManager().contentsAtPath(jsonPath_, kLongestFile, &failure);
  if (!bytes) {
    QNEngineLog(QNLogLevelError, "Error: Failed to open JSON file for reading: %@",
                failure ? failure->localizedDescription() : jsonPath_);
    return false;
  }
  std::string message;
  const std::string_view text(reinterpret_cast<const char*>(bytes->data()), bytes->size());
  auto parsed = JSON::parse(text, &message);
  if (!parsed) {
    QNEngineLog(QNLogLevelError, "Error: Failed to read JSON file: %@", jsonPath_ + ": " + message);
    return false;
  }
  if (!parsed->find(QNSourceURLKey)) {
    QNEngineLog(QNLogLevelError, "Error: No source URL in JSON file");
    return false;
  }
  if (!parsed->find(QNManifestNameKey)) {
    QNEngineLog(QNLogLevelError, "Error: No manifest name in JSON file");
    return false;
  }
  // Only a usable object replaces what others may be reading.
  properties_ = std::move(*parsed);
  return true;
}

std::optional<JSON> QNMovieDownloadProperties::objectForKey(const std::string& key) const {
  RecursiveLock lock(mutex_);
  const JSON* const value = properties_.find(key);
  return value ? std::optional(*value) : std::nullopt;
}

std::optional<std::string> QNMovieDownloadProperties::stringForKey(const char* key) const {
  const auto value = objectForKey(key);
  return value ? value->string() : std::nullopt;
}

uint64_t QNMovieDownloadProperties::numberForKey(const char* key) const {
  const auto value = objectForKey(key);
  return value ? value->unsignedInteger().value_or(0) : 0;
}

std::optional<std::string> QNMovieDownloadProperties::sourceURL() const {
  return stringForKey(QNSourceURLKey);
}

std::optional<std::string> QNMovieDownloadProperties::title() const {
  return stringForKey(QNTitleKey);
}

std::string QNMovieDownloadProperties::localURL() const {
  const std::string name = stringForKey(QNManifestNameKey).value_or("");
  return platform::URL::fileURLWithPath(FileManager::pathByAppending(localPath_, name))
      ->absoluteString();
}

uint64_t QNMovieDownloadProperties::numberOfDownloadedQualities() const {
  return numberForKey(QNNumberOfDownloadedQualitiesKey);
}

uint64_t QNMovieDownloadProperties::numberOfDownloadedVideoQualities() const {
  return numberForKey(QNNumberOfDownloadedVideoQualitiesKey);
}

uint64_t QNMovieDownloadProperties::numberOfDownloadedAudioQualities() const {
  return numberForKey(QNNumberOfDownloadedAudioQualitiesKey);
}

uint64_t QNMovieDownloadProperties::numberOfDownloadedTextQualities() const {
  return numberForKey(QNNumberOfDownloadedTextQualitiesKey);
}

std::optional<std::vector<std::string>> QNMovieDownloadProperties::downloadedQualityIdentifiers()
    const {
  const auto value = objectForKey(QNDownloadedQualityIdentifiersKey);
  if (!value || !value->isArray()) return std::nullopt;
  std::vector<std::string> identifiers;
  for (const JSON& item : value->items()) {
    if (auto identifier = item.string()) identifiers.push_back(std::move(*identifier));
  }
  return identifiers;
}

QNMutableMovieDownloadProperties::QNMutableMovieDownloadProperties(std::string localPath,
                                                                   const std::string& jsonName)
    : QNMovieDownloadProperties(std::move(localPath), jsonName) {}

QNMutableMovieDownloadProperties::~QNMutableMovieDownloadProperties() {
  platform::MutexLock lock(registry().mutex);
  const auto entry = registry().objects.find(jsonPath_);
  // Another object may have taken the entry since the last reference to this one was dropped.
  if (entry != registry().objects.end() && entry->second.expired()) registry().objects.erase(entry);
}

std::shared_ptr<QNMutableMovieDownloadProperties> QNMutableMovieDownloadProperties::sharedObject(
    const std::string& localPath, const std::string& jsonName) {
  std::shared_ptr<QNMutableMovieDownloadProperties> object(
      new QNMutableMovieDownloadProperties(localPath, jsonName));
  std::shared_ptr<QNMutableMovieDownloadProperties> known;
  {
    platform::MutexLock lock(registry().mutex);
    auto& entry = registry().objects[object->jsonPath_];
    known = entry.lock();
    if (!known) entry = object;
  }
  return known ? known : object;  // the spare one goes without the registry's lock held
}

std::shared_ptr<QNMutableMovieDownloadProperties>
QNMutableMovieDownloadProperties::propertiesWithLocalPath(const std::string& localPath,
                                                          const std::string& jsonName) {
  const auto object = sharedObject(localPath, jsonName);
  RecursiveLock lock(object->mutex_);
  return object->reread() ? object : nullptr;
}

std::shared_ptr<QNMutableMovieDownloadProperties>
QNMutableMovieDownloadProperties::propertiesWithSourceURL(const std::string& sourceURL,
                                                          const std::string& localPath,
                                                          const std::string& manifestName,
                                                          const std::string& jsonName) {
  const auto object = sharedObject(localPath, jsonName);
  RecursiveLock lock(object->mutex_);
  return object->open(sourceURL, manifestName) ? object : nullptr;
}

bool QNMutableMovieDownloadProperties::reread() {
  return unwritten_ || _readJSON();
}

bool QNMutableMovieDownloadProperties::open(const std::string& sourceURL,
                                            const std::string& manifestName) {
  if (FileManager::defaultManager().fileExistsAtPath(jsonPath_)) {
    if (!reread()) return false;
    if (!hasString(properties_, QNSourceURLKey, sourceURL))
      failInconsistently("Error: Mismatching source URLs", 264);
    if (!hasString(properties_, QNManifestNameKey, manifestName))
      failInconsistently("Error: Mismatching manifest names", 266);
    return true;
  }
  // Whoever still holds the object of a download that was removed sees the new one from here on.
  properties_ = JSON::object();
  properties_.set(QNSourceURLKey, sourceURL);
  properties_.set(QNManifestNameKey, manifestName);
  (void)_writeJSON();
  return true;
}

bool QNMutableMovieDownloadProperties::_writeJSON() {
  const std::string text = properties_.dump();
  const auto failure =
      FileManager::defaultManager().writeAtomically(jsonPath_, text.data(), text.size());
  unwritten_ = failure != nullptr;
  if (!failure) return true;
  // The two failures have had different levels from the start.
  if (isOutOfRoom(*failure)) {
    QNEngineLog(kWriterLogLevel, "Error: Failed to write JSON file: %@",
                failure->localizedDescription());
  } else {
    QNEngineLog(QNLogLevelError, "Error: Failed to open JSON file for writing: %@",
                failure->localizedDescription());
  }
  return false;
}

void QNMutableMovieDownloadProperties::setObjectForKey(JSON value, const std::string& key) {
  RecursiveLock lock(mutex_);
  properties_.set(key, std::move(value));
  (void)_writeJSON();
}

void QNMutableMovieDownloadProperties::removeObjectForKey(const std::string& key) {
  RecursiveLock lock(mutex_);
  properties_.remove(key);
  (void)_writeJSON();
}

void QNMutableMovieDownloadProperties::setTitle(const std::optional<std::string>& title) {
  if (title) {
    setObjectForKey(*title, QNTitleKey);
  } else {
    removeObjectForKey(QNTitleKey);
  }
}

void QNMutableMovieDownloadProperties::setNumberForKey(uint64_t count, const char* key) {
  RecursiveLock lock(mutex_);
  setObjectForKey(count, key);
  (void)_writeJSON();
}

void QNMutableMovieDownloadProperties::setNumberOfDownloadedQualities(uint64_t count) {
  setNumberForKey(count, QNNumberOfDownloadedQualitiesKey);
}

void QNMutableMovieDownloadProperties::setNumberOfDownloadedVideoQualities(uint64_t count) {
  setNumberForKey(count, QNNumberOfDownloadedVideoQualitiesKey);
}

void QNMutableMovieDownloadProperties::setNumberOfDownloadedAudioQualities(uint64_t count) {
  setNumberForKey(count, QNNumberOfDownloadedAudioQualitiesKey);
}

void QNMutableMovieDownloadProperties::setNumberOfDownloadedTextQualities(uint64_t count) {
  setNumberForKey(count, QNNumberOfDownloadedTextQualitiesKey);
}

void QNMutableMovieDownloadProperties::setDownloadedQualityIdentifiers(
    const std::vector<std::string>& identifiers) {
  JSON::Array items(identifiers.begin(), identifiers.end());
  RecursiveLock lock(mutex_);
  setObjectForKey(std::move(items), QNDownloadedQualityIdentifiersKey);
  (void)_writeJSON();
}

bool QNMutableMovieDownloadProperties::writeQueued() const {
  RecursiveLock lock(mutex_);
  return writeQueued_;
}

void QNMutableMovieDownloadProperties::setWriteQueued(bool queued) {
  RecursiveLock lock(mutex_);
  writeQueued_ = queued;
}

void QNMutableMovieDownloadProperties::_scheduleWriteJSON() {
  {
    RecursiveLock lock(mutex_);
    if (writeQueued_) return;
    writeQueued_ = true;
  }
  platform::DispatchQueue::globalBackgroundQueue()->async([weak = weak_from_this()] {
    const auto self = std::static_pointer_cast<QNMutableMovieDownloadProperties>(weak.lock());
    if (!self) return;
    RecursiveLock lock(self->mutex_);
    self->writeQueued_ = false;
    (void)self->_writeJSON();
  });
}
