#include "engine/QNMovieDownloader.h"

#include <algorithm>
#include <any>
#include <cerrno>
#include <string_view>
#include <utility>

#include "engine/QNDownloadRecord.h"
#include "engine/QNEngineLog.h"
#include "engine/QNHash.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNUniqueString.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/host/QNLog.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNPlaylistFactory.h"
#include "qnc/qncFastString.h"

using platform::FileManager;
using platform::RecursiveLock;

// Making a downloader, identifiers, and how sets become active. Control:
// QNMovieDownloaderControl.cpp; session events: QNMovieDownloaderEvents.cpp.

namespace {

constexpr const char* kDirectoryName = "QNMovieDownloader";
constexpr const char* kIdentifierPrefix = "QNMovieDownloader/";
constexpr const char* kSharedIdentifier = "QNMovieDownloader/SharedSession";
constexpr const char* kManifestName = "manifest.mpd";
constexpr int64_t kSniffedBytes = 1024;
constexpr int kNoticeLogLevel = 8;

std::string lowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// A component that is missing hashes to 0, and so does an empty one.
std::string hashDigits(const std::string& component) {
  return QNHexDigits(component.empty() ? 0 : QNHash64(component));
}

std::string olderDownloadId(const platform::URLPtr& url) {
  const std::string host = url ? lowerCase(url->host().value_or("")) : "";
  return hashDigits(host) + "-" + hashDigits(url ? url->path() : "");
}

std::string extensionOf(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos || dot == 0 ? "" : name.substr(dot + 1);
}

// How many bytes at the end begin a UTF-8 character that is not whole.
size_t bytesOfCutCharacter(std::string_view text) {
  for (size_t count = 1; count <= std::min<size_t>(3, text.size()); ++count) {
    const auto byte = static_cast<unsigned char>(text[text.size() - count]);
    if (byte < 0x80) return 0;
    if (byte < 0xC0) continue;  // not the first of its character
    const size_t whole = byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
    return count < whole ? count : 0;
  }
  return 0;
}

bool looksLikeManifest(const std::string& path) {
  const auto bytes = FileManager::defaultManager().contentsAtPath(path, kSniffedBytes);
  if (!bytes) return false;
  std::string_view text(reinterpret_cast<const char*>(bytes->data()), bytes->size());
  if (text.find("MPD") == std::string_view::npos) return false;
  // A text, and not a segment that has these bytes by chance; the limit may have cut its last
  // character.
  if (text.size() == kSniffedBytes) text.remove_suffix(bytesOfCutCharacter(text));
  return qnc::FastString(text).isValidUTF8();
}

// What could not be stored of a manifest: the fixed reason, and what the file system said.
struct SaveFailure {
  const char* reason;
  platform::ErrorPtr cause;
  bool tellsCause;  // in the exception's user info
};

std::optional<SaveFailure> saveManifest(const platform::DataPtr& bytes,
                                        const std::string& directory) {
  auto& files = FileManager::defaultManager();
  if (auto error = files.createDirectoryWithIntermediates(directory))
    return SaveFailure{"Failed to create download directory", std::move(error), true};
  const std::string path = FileManager::pathByAppending(directory, kManifestName);
  if (!bytes) return SaveFailure{"Failed to write manifest to file", nullptr, false};
  if (auto error = files.writeAtomically(path, bytes->data(), bytes->size()))
    return SaveFailure{"Failed to write manifest to file", std::move(error), false};
  return std::nullopt;
}

platform::ErrorPtr errorWithReason(const std::string& reason, platform::ErrorPtr cause = nullptr) {
  platform::Dictionary userInfo{{platform::NSLocalizedDescriptionKey, reason},
                                {platform::NSLocalizedFailureReasonErrorKey, reason}};
  if (cause) userInfo[QNUnderlyingErrorKey] = std::move(cause);
  return platform::Error::errorWithDomain(QNPlaylistFactoryErrorDomain, QNPlaylistFactoryErrorCode,
                                          std::move(userInfo));
}

// For catch-all blocks.
platform::ErrorPtr errorOfCurrentException() {
  try {
    throw;
  } catch (const platform::Exception& exception) {
    const auto cause = exception.userInfo().find("NSError");
    const auto* const error = cause == exception.userInfo().end()
                                  ? nullptr
                                  : std::any_cast<platform::ErrorPtr>(&cause->second);
    return errorWithReason(exception.reason(), error ? *error : nullptr);
  } catch (const std::exception& exception) {
    return errorWithReason(exception.what());
  } catch (...) {
    return errorWithReason("Unexpected C++ exception received");
  }
}

struct Configurator {
  platform::Mutex mutex;
  QNMovieDownloader::ConfigureSession configure GUARDED_BY(mutex);
};

Configurator& configurator() {
  static auto* const instance = new Configurator;
  return *instance;
}

// Lives for the process: nothing of it ends while other threads still use it. Empty until the
// shared downloader stands.
struct SharedDownloader {
  platform::Mutex mutex;
  std::shared_ptr<QNMovieDownloader> made GUARDED_BY(mutex);
};

SharedDownloader& theShared() {
  static auto* const instance = new SharedDownloader;
  return *instance;
}

std::string defaultDownloadPath() {
  return FileManager::pathByAppending(FileManager::documentsDirectory(), kDirectoryName);
}

std::vector<std::shared_ptr<QNMovieDownloadProperties>> moviesBelow(const std::string& root) {
  auto& files = FileManager::defaultManager();
  std::vector<std::shared_ptr<QNMovieDownloadProperties>> movies;
  for (const auto& entry :
       files.contentsOfDirectory(root).value_or(std::vector<FileManager::Entry>())) {
    const std::string directory = FileManager::pathByAppending(root, entry.name);
    const std::string path = FileManager::pathByAppending(directory, QNMoviePropertiesFileName);
    if (!files.fileExistsAtPath(path)) continue;
    auto properties =
        QNMovieDownloadProperties::propertiesWithLocalPath(directory, QNMoviePropertiesFileName);
    if (properties) movies.push_back(std::move(properties));
  }
  return movies;
}

}  // namespace

std::shared_ptr<QNMovieDownloader> QNMovieDownloader::initWithIdentifier(
    const std::optional<std::string>& identifier, bool cellularAccess, bool discretionaryMode,
    std::optional<std::string> downloadPath, const ConfigureSession& configure) {
  std::string path = downloadPath ? std::move(*downloadPath) : defaultDownloadPath();
  std::shared_ptr<QNMovieDownloader> downloader(
      new QNMovieDownloader(cellularAccess, discretionaryMode, std::move(path)));
  downloader->start(identifier, configure);
  return downloader;
}

std::shared_ptr<QNMovieDownloader> QNMovieDownloader::initWithIdentifier(
    const std::optional<std::string>& identifier, bool cellularAccess, bool discretionaryMode) {
  return initWithIdentifier(identifier, cellularAccess, discretionaryMode, std::nullopt);
}

std::shared_ptr<QNMovieDownloader> QNMovieDownloader::initWithIdentifier(
    const std::optional<std::string>& identifier) {
  return initWithIdentifier(identifier, false, false);
}

std::shared_ptr<QNMovieDownloader> QNMovieDownloader::init() {
  return initWithIdentifier(std::nullopt);
}

std::shared_ptr<QNMovieDownloader> QNMovieDownloader::sharedDownloader() {
  static auto* const shared = [] {
    auto* const made =
        new std::shared_ptr<QNMovieDownloader>(initWithIdentifier(std::string(kSharedIdentifier)));
    platform::MutexLock lock(theShared().mutex);
    theShared().made = *made;
    return made;
  }();
  return *shared;
}

std::vector<QNMovieDownloader::Properties> QNMovieDownloader::sharedDownloadedMovies() {
  std::shared_ptr<QNMovieDownloader> made;
  {
    platform::MutexLock lock(theShared().mutex);
    made = theShared().made;
  }
  return made ? made->downloadedMovies() : moviesBelow(defaultDownloadPath());
}

void QNMovieDownloader::setConfigureSession(ConfigureSession configure) {
  platform::MutexLock lock(configurator().mutex);
  configurator().configure = std::move(configure);
}

QNMovieDownloader::QNMovieDownloader(bool cellularAccess, bool discretionaryMode,
                                     std::string downloadPath)
    : mutexOwner_(std::make_shared<platform::RecursiveMutex>()),
      mutex_(*mutexOwner_),
      allowsCellularAccess_(cellularAccess),
      discretionary_(discretionaryMode),
      downloadPath_(std::move(downloadPath)) {
  backgroundCompletionHandlers_.reserve(4);
}

QNMovieDownloader::~QNMovieDownloader() {
  for (const auto observer : observers_)
    platform::NotificationCenter::defaultCenter().removeObserver(observer);
  // An application may still hold sets, which transfer nothing any more.
  for (const auto& [downloadId, set] : downloadIdSetMap_)
    set->dropHold();
}

platform::URLSessionConfiguration QNMovieDownloader::configuration(
    const std::optional<std::string>& identifier, const ConfigureSession& configure) const {
  const std::string name = identifier ? *identifier : kIdentifierPrefix + QNUniqueString();
  auto configuration =
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(name);
  configuration.ephemeral = !identifier;
  configuration.partialDirectory = downloadPath();
  ConfigureSession processWide;
  {
    platform::MutexLock lock(configurator().mutex);
    processWide = configurator().configure;
  }
  if (processWide) processWide(configuration);
  if (configure) configure(configuration);
  configuration.identifier = name;
  configuration.sessionSendsLaunchEvents = true;
  configuration.allowsCellularAccess = allowsCellularAccess_;
  configuration.discretionary = discretionary_;
  return configuration;
}

void QNMovieDownloader::start(const std::optional<std::string>& identifier,
                              const ConfigureSession& configure) {
  const std::weak_ptr<QNMovieDownloader> weak = weak_from_this();
  session_ =
      platform::URLSession::sessionWithConfiguration(configuration(identifier, configure), weak);
  auto& center = platform::NotificationCenter::defaultCenter();
  observers_.push_back(
      center.addObserver(platform::UIApplicationDidEnterBackgroundNotification, [weak] {
        if (const auto self = weak.lock()) self->handleLeaveForeground();
      }));
  observers_.push_back(
      center.addObserver(platform::UIApplicationWillEnterForegroundNotification, [weak] {
        if (const auto self = weak.lock()) self->handleEnterForeground();
      }));
  session_->getTasksWithCompletionHandler([weak](const platform::URLSession::Tasks& tasks) {
    if (const auto self = weak.lock()) self->_reattachTasks(tasks);
  });
  finishRemovals();
}

std::string QNMovieDownloader::downloadPath() const {
  platform::MutexLock lock(pathMutex_);
  return downloadPath_;
}

void QNMovieDownloader::setDownloadPath(std::string path) {
  platform::MutexLock lock(pathMutex_);
  downloadPath_ = std::move(path);
}

QNHeadersPtr QNMovieDownloader::additionalHeaders() const {
  RecursiveLock lock(mutex_);
  return additionalHeaders_;
}

void QNMovieDownloader::setAdditionalHeaders(QNHeadersPtr headers) {
  RecursiveLock lock(mutex_);
  additionalHeaders_ = std::move(headers);
  for (const auto& [downloadId, set] : downloadIdSetMap_)
    set->adoptHeaders(additionalHeaders_);
}

std::optional<QNHeaderOrigins> QNMovieDownloader::headerOrigins() const {
  RecursiveLock lock(mutex_);
  return headerOrigins_;
}

void QNMovieDownloader::setHeaderOrigins(std::optional<QNHeaderOrigins> origins) {
  RecursiveLock lock(mutex_);
  headerOrigins_ = std::move(origins);
}

// Identity and storage

std::string QNMovieDownloader::downloadIdWithURL(const std::string& url) const {
  return downloadIdWithURL(url, downloadPath());
}

std::string QNMovieDownloader::downloadIdWithURL(const std::string& url,
                                                 const std::string& downloadPath) {
  const auto parsed = platform::URL::URLWithString(url);
  std::string older = olderDownloadId(parsed);
  const auto entries = FileManager::defaultManager().contentsOfDirectory(downloadPath);
  if (entries) {
    for (const auto& entry : *entries) {
      if (entry.name == older) return older;
    }
  }
  return older + "-" + hashDigits(parsed ? parsed->query().value_or("") : "");
}

std::string QNMovieDownloader::getDefaultManifestLocalName() {
  return kManifestName;
}

void QNMovieDownloader::_saveManifest(const platform::DataPtr& bytes, const std::string& /*url*/,
                                      const std::string& directory) {
  const auto failure = saveManifest(bytes, directory);
  if (!failure) return;
  platform::Dictionary userInfo;
  if (failure->tellsCause) userInfo["NSError"] = failure->cause;
  throw platform::Exception(QNMovieDownloaderException, failure->reason, std::move(userInfo));
}

std::string QNMovieDownloader::directoryOf(const std::string& downloadId) const {
  return FileManager::pathByAppending(downloadPath(), downloadId);
}

std::string QNMovieDownloader::findManifestLocalNameForDownloadId(
    const std::string& downloadId) const {
  auto& files = FileManager::defaultManager();
  const std::string directory = directoryOf(downloadId);
  const auto pathOf = [&](const std::string& name) {
    return FileManager::pathByAppending(directory, name);
  };
  if (files.fileExistsAtPath(pathOf(kManifestName))) return kManifestName;
  if (files.fileExistsAtPath(pathOf(QNMoviePropertiesFileName))) {
    const auto properties =
        QNMovieDownloadProperties::propertiesWithLocalPath(directory, QNMoviePropertiesFileName);
    const auto value = properties ? properties->objectForKey(QNManifestNameKey) : std::nullopt;
    const auto name = value ? value->string() : std::nullopt;
    if (name && !name->empty() && files.fileExistsAtPath(pathOf(*name))) return *name;
  }
  for (const auto& entry :
       files.contentsOfDirectory(directory).value_or(std::vector<FileManager::Entry>())) {
    const std::string extension = extensionOf(entry.name);
    if (extension == "xml" || extension == "mp4" || extension == "json") continue;
    if (!entry.isRegular || FileManager::isTemporaryName(entry.name)) continue;
    if (extension == "mpd" || looksLikeManifest(pathOf(entry.name))) return entry.name;
  }
  return kManifestName;
}

std::vector<QNMovieDownloader::Properties> QNMovieDownloader::downloadedMovies() const {
  return moviesBelow(downloadPath());
}

// Activation

QNMovieDownloader::Set QNMovieDownloader::activeSet(const std::string& downloadId) const {
  const auto entry = downloadIdSetMap_.find(downloadId);
  return entry == downloadIdSetMap_.end() ? nullptr : entry->second;
}

QNMovieDownloader::Sets QNMovieDownloader::setsInMap() const {
  Sets sets;
  for (const auto& [downloadId, set] : downloadIdSetMap_)
    sets.push_back(set);
  return sets;
}

QNMovieDownloader::Sets QNMovieDownloader::activeDownloadSets() const {
  RecursiveLock lock(mutex_);
  return setsInMap();
}

QNMovieDownloader::Set QNMovieDownloader::fetchActiveDownloadSetForURL(
    const std::string& url) const {
  RecursiveLock lock(mutex_);
  return activeSet(downloadIdWithURL(url));
}

QNMovieDownloader::Set QNMovieDownloader::activateDownloadSetForURL(const std::string& url) {
  return activate(url, recordOf(downloadIdWithURL(url)));
}

QNMovieDownloader::Record QNMovieDownloader::recordOf(const std::string& downloadId) const {
  {
    RecursiveLock lock(mutex_);
    if (activeSet(downloadId) || isBeingRemoved(downloadId)) return nullptr;
  }
  return QNDownloadRecord::load(directoryOf(downloadId), session_->bootIdentifier());
}

QNMovieDownloader::Set QNMovieDownloader::activate(const std::string& url, const Record& record) {
  RecursiveLock lock(mutex_);
  platform::ErrorPtr error;
  Set set = activeOrStoredSet(url, downloadIdWithURL(url), record, &error);
  if (error) {
    QNEngineLog(QNLogLevelError, "Error: Failed to activate stored download: %@",
                error->localizedDescription());
  }
  return set;
}

QNMovieDownloader::Set QNMovieDownloader::activateDownloadSet(const Set& set) {
  return set ? activateDownloadSetForURL(set->sourceURL()) : nullptr;
}

QNMovieDownloader::Set QNMovieDownloader::activeOrStoredSet(const std::string& url,
                                                            const std::string& downloadId,
                                                            const Record& record,
                                                            platform::ErrorPtr* error) {
  if (isBeingRemoved(downloadId)) return nullptr;
  if (Set set = activeSet(downloadId)) return set;
  const std::string directory = directoryOf(downloadId);
  const std::string name = findManifestLocalNameForDownloadId(downloadId);
  const auto playlist =
      QNPlaylistFactory::generateWithFile(FileManager::pathByAppending(directory, name), error);
  if (!playlist) return nullptr;
  try {
    const std::string sourceURL = settledSourceURL(url, directory, name);
    playlist->setUrl(sourceURL);
    return _downloadSetWithPlaylist(playlist, directory, name, sourceURL, downloadId, record);
  } catch (...) {
    *error = errorOfCurrentException();
    return nullptr;
  }
}

// A download stays what its properties file says that it is: URLs that differ in what the
// identifier leaves out (scheme, port, user, fragment) are one download, under the first of them. A
// manifest that was found under another name than the recorded one is recorded anew. Throws before
// anything is stored when the file system refuses the file now.
std::string QNMovieDownloader::settledSourceURL(const std::string& url,
                                                const std::string& directory,
                                                const std::string& manifestName) const {
  // What goes into properties and task descriptions has to come back as it was.
  std::string settled = platform::URL::encodingInvalidBytes(url);
  platform::ErrorPtr unread;
  const auto properties = QNMutableMovieDownloadProperties::propertiesWithLocalPath(
      directory, QNMoviePropertiesFileName, &unread);
  if (unread && unread->code() != ENOENT) {
    throw platform::Exception(QNMovieDownloaderException, "Properties file cannot be read",
                              {{"NSError", unread}});
  }
  if (!properties) return settled;  // the set deals with a damaged file
  const auto recorded = properties->objectForKey(QNManifestNameKey);
  if (!recorded || recorded->string() != manifestName) {
    QNEngineLog(kNoticeLogLevel, "Notice: Download goes on with the manifest %@", manifestName);
    properties->setObjectForKey(manifestName, QNManifestNameKey);
  }
  const auto stored = properties->sourceURL();
  if (!stored) {
    properties->setObjectForKey(settled, QNSourceURLKey);
    return settled;
  }
  if (*stored != settled) {
    QNEngineLog(kNoticeLogLevel, "Notice: Download goes on under its stored URL %@", *stored);
  }
  return *stored;
}

QNMovieDownloader::Set QNMovieDownloader::_downloadSetWithPlaylist(
    const std::shared_ptr<QNPlaylist>& playlist, const std::string& downloadPath,
    const std::string& manifestName, const std::string& sourceURL, const std::string& downloadId,
    const Record& record, std::function<void()> beforeStoring) {
  Set set = QNMovieDownloadSet::downloadSetWithPlaylist(
      playlist, downloadPath, manifestName, sourceURL, downloadId, shared_from_this(),
      {mutexOwner_, std::move(beforeStoring), record});
  downloadIdSetMap_[downloadId] = set;
  return set;
}

// Fetching

void QNMovieDownloader::fetchDownloadSetForURL(const std::string& url, FetchCompletion block) {
  const auto self = shared_from_this();
  const Record record = recordOf(downloadIdWithURL(url));
  RecursiveLock lock(mutex_);
  platform::ErrorPtr error;
  const Set set = activeOrStoredSet(url, downloadIdWithURL(url), record, &error);
  if (set || error) {
    block(set, set ? nullptr : error);
    return;
  }
  QNPlaylistFactory::generateWithURL(
      url, [weak = weak_from_this(), url, block = std::move(block)](
               const auto& playlist, const auto& bytes, const auto& failure) {
        const auto downloader = weak.lock();
        try {
          if (downloader) return downloader->completeFetch(url, playlist, bytes, failure, block);
          block(nullptr, platform::Error::errorWithDomain(
                             platform::NSURLErrorDomain, platform::URLErrorCancelled,
                             {{platform::NSLocalizedDescriptionKey,
                               std::string("The downloader was released during the fetch")}}));
        } catch (...) {
          QNEngineLog(QNLogLevelError, "Error: Exception after fetching a manifest: %@",
                      platform::describeCurrentException());
        }
      });
}

void QNMovieDownloader::completeFetch(const std::string& url,
                                      const std::shared_ptr<QNPlaylist>& playlist,
                                      const platform::DataPtr& manifest,
                                      const platform::ErrorPtr& error,
                                      const FetchCompletion& block) {
  if (error) return block(nullptr, error);
  const Record record = recordOf(downloadIdWithURL(url));
  RecursiveLock lock(mutex_);
  platform::ErrorPtr failure;
  const Set set = storeWithRecord(url, playlist, manifest, record, &failure);
  block(set, failure);
}

QNMovieDownloader::Set QNMovieDownloader::storeDownloadSetForURL(
    const std::string& url, const std::shared_ptr<QNPlaylist>& playlist,
    const platform::DataPtr& manifest, platform::ErrorPtr* error) {
  platform::ErrorPtr ignored;
  return storeWithRecord(url, playlist, manifest, recordOf(downloadIdWithURL(url)),
                         error ? error : &ignored);
}

QNMovieDownloader::Set QNMovieDownloader::storeWithRecord(
    const std::string& url, const std::shared_ptr<QNPlaylist>& playlist,
    const platform::DataPtr& manifest, const Record& record, platform::ErrorPtr* error) {
  RecursiveLock lock(mutex_);
  const std::string downloadId = downloadIdWithURL(url);
  if (isBeingRemoved(downloadId)) {
    *error = errorWithReason("The download is being removed");
    return nullptr;
  }
  // Another fetch of the same download may have been faster.
  if (Set set = activeSet(downloadId)) return set;
  if (!playlist) {
    *error = errorWithReason("Manifest holds nothing to download");
    return nullptr;
  }
  const std::string directory = directoryOf(downloadId);
  const std::string name =
      manifest ? kManifestName : findManifestLocalNameForDownloadId(downloadId);
  platform::ErrorPtr unsaved;
  try {
    const std::string sourceURL = settledSourceURL(url, directory, name);
    playlist->setUrl(sourceURL);
    return _downloadSetWithPlaylist(playlist, directory, name, sourceURL, downloadId, record, [&] {
      if (!manifest) return;
      const auto failure = saveManifest(manifest, directory);
      if (!failure) return;
      unsaved = failure->cause;
      throw platform::Exception(QNMovieDownloaderException, failure->reason);
    });
  } catch (...) {
    *error = errorOfCurrentException();
    if (unsaved) *error = errorWithReason((*error)->localizedDescription(), unsaved);
    return nullptr;
  }
}
