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
constexpr unsigned kMode = 0600;  // the address may hold a secret
constexpr int64_t kLongestFile = int64_t{64} << 20;

bool isOutOfRoom(const platform::Error& error) {
  return error.code() == ENOSPC || error.code() == EDQUOT || error.code() == EFBIG ||
         error.code() == EIO;
}

void logUnread(const platform::ErrorPtr& error) {
  QNEngineLog(QNLogLevelError, "Error: Failed to open JSON file for reading: %@",
              error->localizedDescription());
}

[[noreturn]] void failInconsistently(const char* description, int64_t line) {
  throw platform::Exception(platform::NSInternalInconsistencyException, description,
                            {{"source", std::string("QNMovieDownloadProperties")}, {"line", line}});
}

bool hasString(const JSON& json, const char* key, const std::string& value) {
  const JSON* const member = json.find(key);
  return member && member->string() == value;
}

// What is no regular file cannot be a properties file, whenever it is looked at.
bool isNoFile(const platform::Error& error) {
  return error.code() == EISDIR || error.code() == EINVAL || error.code() == ELOOP;
}

}  // namespace

// The objects that are alive, by the path of their file without links. A file system may know a
// directory by several of these (names that differ in case, a directory that is mounted twice), so
// they are found by the directory itself as well.
struct QNMutableMovieDownloadProperties::Registry {
  using WeakObject = std::weak_ptr<QNMutableMovieDownloadProperties>;
  platform::Mutex mutex;
  std::map<std::string, WeakObject> byFile GUARDED_BY(mutex);
  std::map<Location, WeakObject> byLocation GUARDED_BY(mutex);

  // The object's directory is found here from now on.
  void move(const Object& object, Location location) REQUIRES(mutex);

  template <class Map, class Key>
  static void eraseExpired(Map& map, const Key& key) {
    const auto entry = map.find(key);
    // Another object may have taken the entry since the last reference to this one was dropped.
    if (entry != map.end() && entry->second.expired()) map.erase(entry);
  }
};

void QNMutableMovieDownloadProperties::Registry::move(const Object& object, Location location) {
  if (object->location_ == location) return;
  const auto before = object->location_ ? byLocation.find(*object->location_) : byLocation.end();
  const auto isOf = [&](const WeakObject& entry) {
    return !entry.owner_before(object) && !object.owner_before(entry);
  };
  if (before != byLocation.end() && isOf(before->second)) byLocation.erase(before);
  byLocation[location] = object;
  object->location_ = std::move(location);
}

// Never destroyed: objects may outlive static ones.
QNMutableMovieDownloadProperties::Registry& QNMutableMovieDownloadProperties::registry() {
  static auto* const instance = new Registry;
  return *instance;
}

std::shared_ptr<QNMovieDownloadProperties> QNMovieDownloadProperties::propertiesWithLocalPath(
    const std::string& localPath, const std::string& jsonName) {
  return QNMutableMovieDownloadProperties::propertiesWithLocalPath(localPath, jsonName);
}

QNMovieDownloadProperties::QNMovieDownloadProperties(std::string localPath,
                                                     const std::string& jsonName)
    : localPath_(std::move(localPath)),
      jsonPath_(FileManager::pathByAppending(localPath_, jsonName)),
      file_(FileManager::pathByAppending(FileManager::defaultManager().canonicalPath(localPath_),
                                         jsonName)) {}

QNMovieDownloadProperties::~QNMovieDownloadProperties() = default;

bool QNMovieDownloadProperties::_readJSON(platform::ErrorPtr* unread) {
  platform::ErrorPtr failure;
  const auto bytes = FileManager::defaultManager().contentsAtPath(file_, kLongestFile, &failure);
  if (!bytes) {
    if (unread && failure && !isNoFile(*failure)) {
      *unread = std::move(failure);
      return false;
    }
    logUnread(failure);
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
  Registry::eraseExpired(registry().byFile, file_);
  if (location_) Registry::eraseExpired(registry().byLocation, *location_);
}

std::shared_ptr<QNMutableMovieDownloadProperties> QNMutableMovieDownloadProperties::sharedObject(
    const std::string& localPath, const std::string& jsonName) {
  auto& files = FileManager::defaultManager();
  Object object(new QNMutableMovieDownloadProperties(localPath, jsonName));
  const auto directory = files.identityOf(localPath);
  Object known;
  Object elsewhere;  // like the others it goes without the registry's lock held
  platform::MutexLock lock(registry().mutex);
  auto& byFile = registry().byFile;
  auto& byLocation = registry().byLocation;
  if (const auto entry = byFile.find(object->file_); entry != byFile.end())
    known = entry->second.lock();
  if (!known && directory) {
    const auto entry = byLocation.find({*directory, jsonName});
    if (entry != byLocation.end()) elsewhere = entry->second.lock();
    // The numbers of a directory that is gone are used again.
    if (elsewhere && files.identityOf(elsewhere->localPath_) == directory) known = elsewhere;
  }
  if (!known) {
    known = object;
    byFile[object->file_] = object;
  }
  if (directory) registry().move(known, {*directory, jsonName});
  return known;
}

std::shared_ptr<QNMutableMovieDownloadProperties>
QNMutableMovieDownloadProperties::propertiesWithLocalPath(const std::string& localPath,
                                                          const std::string& jsonName,
                                                          platform::ErrorPtr* unread) {
  const auto object = sharedObject(localPath, jsonName);
  RecursiveLock lock(object->mutex_);
  return object->unwritten_ || object->_readJSON(unread) ? object : nullptr;
}

std::shared_ptr<QNMutableMovieDownloadProperties>
QNMutableMovieDownloadProperties::propertiesWithSourceURL(const std::string& sourceURL,
                                                          const std::string& localPath,
                                                          const std::string& manifestName,
                                                          const std::string& jsonName,
                                                          platform::ErrorPtr* unread) {
  const auto object = sharedObject(localPath, jsonName);
  platform::ErrorPtr ignored;
  RecursiveLock lock(object->mutex_);
  return object->open(sourceURL, manifestName, unread ? unread : &ignored) ? object : nullptr;
}

bool QNMutableMovieDownloadProperties::open(const std::string& sourceURL,
                                            const std::string& manifestName,
                                            platform::ErrorPtr* unread) {
  const bool memoryIsNewer = unwritten_ && FileManager::defaultManager().fileExistsAtPath(file_);
  if (memoryIsNewer || _readJSON(unread)) {
    if (!hasString(properties_, QNSourceURLKey, sourceURL))
      failInconsistently("Error: Mismatching source URLs", 264);
    if (!hasString(properties_, QNManifestNameKey, manifestName))
      failInconsistently("Error: Mismatching manifest names", 266);
    return true;
  }
  // Only what is known to be absent is started anew.
  if (!*unread) return false;
  if ((*unread)->code() != ENOENT) {
    logUnread(*unread);
    return false;
  }
  *unread = nullptr;
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
      FileManager::defaultManager().writeAtomically(file_, text.data(), text.size(), kMode);
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

bool QNMutableMovieDownloadProperties::isWritten() const {
  RecursiveLock lock(mutex_);
  return !unwritten_;
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
