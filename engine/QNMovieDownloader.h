#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/QNDownloadTypes.h"
#include "engine/QNMovieDownloadProperties.h"
#include "engine/QNSessionController.h"
#include "platform/Application.h"
#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/FileManager.h"
#include "platform/Mutex.h"
#include "platform/NotificationCenter.h"
#include "platform/URLSession.h"

class QNDownloadHold;
class QNDownloadRecord;
class QNMovieDownloadSet;
class QNPlaylist;
class QNResourceDownloadInfo;
struct QNStoredFile;

// The front object: owns the background session, the active download sets and the table of which
// task belongs to which resource. One directory per download lies under its download path.
//
// Any thread may call. All operations hold one recursive lock, which the sets share, except
// `downloadedMovies`, `downloadIdWithURL` and `findManifestLocalNameForDownloadId`. Session events
// come on the session's delegate queue and take the lock too. Exceptions are named
// "QNMovieDownloaderException"; the lock is released as they pass.
class QN_EXPORT QNMovieDownloader final : public QNSessionController,
                                          public platform::URLSessionDelegate,
                                          public std::enable_shared_from_this<QNMovieDownloader> {
 public:
  using Set = std::shared_ptr<QNMovieDownloadSet>;
  using Sets = std::vector<Set>;
  using Properties = std::shared_ptr<QNMovieDownloadProperties>;
  using FetchCompletion = std::function<void(const Set& set, const platform::ErrorPtr& error)>;
  // Changes the own fields of a session's configuration (state directory, limits, service, launch
  // command); identifier, cellular and discretionary flags are restored afterwards.
  using ConfigureSession = std::function<void(platform::URLSessionConfiguration&)>;

  // Opens the session (and throws what that throws), then finds the tasks of earlier launches and
  // the sets they belong to. Tasks of a download that another downloader holds end; a holder that
  // is being killed is waited for, for at most a second. Without an identifier the session is a new
  // one with each launch, and what it left unfinished is not found again. Default download path:
  // "QNMovieDownloader" in the user's documents directory.
  static std::shared_ptr<QNMovieDownloader> initWithIdentifier(
      const std::optional<std::string>& identifier, bool cellularAccess, bool discretionaryMode,
      std::optional<std::string> downloadPath, const ConfigureSession& configure = {});
  static std::shared_ptr<QNMovieDownloader> initWithIdentifier(
      const std::optional<std::string>& identifier, bool cellularAccess, bool discretionaryMode);
  static std::shared_ptr<QNMovieDownloader> initWithIdentifier(
      const std::optional<std::string>& identifier);
  static std::shared_ptr<QNMovieDownloader> init();
  // One for the process, "QNMovieDownloader/SharedSession", made with the first call (which throws
  // what opening the session throws; the next one tries again).
  static std::shared_ptr<QNMovieDownloader> sharedDownloader();
  // Own addition: what the shared downloader lists; before it was made, what is stored in the
  // default download path. Makes none, and waits for nobody who does.
  static std::vector<Properties> sharedDownloadedMovies();
  // For every downloader that is made from now on, before its own `configure`.
  static void setConfigureSession(ConfigureSession configure);

  QNMovieDownloader(const QNMovieDownloader&) = delete;
  QNMovieDownloader& operator=(const QNMovieDownloader&) = delete;
  ~QNMovieDownloader() override;

  bool allowsCellularAccess() const { return allowsCellularAccess_; }
  bool discretionary() const { return discretionary_; }
  std::string downloadPath() const;
  void setDownloadPath(std::string path);  // of downloads that are activated from now on
  QNHeadersPtr additionalHeaders() const;
  void setAdditionalHeaders(QNHeadersPtr headers);  // of every request of a start by `download`
  // Own addition: what `download` limits the headers of a set to before it starts
  // (QNMovieDownloadSet::setHeaderOrigins, whose exceptions leave `download`). nullopt, the
  // default, leaves every set as it is: a limit that was stored with a download still holds.
  std::optional<QNHeaderOrigins> headerOrigins() const;
  void setHeaderOrigins(std::optional<QNHeaderOrigins> origins);

  // The name of the download's directory: hashes of host (lower case), path and query. A directory
  // with the older form of the name (without query) is kept in use.
  std::string downloadIdWithURL(const std::string& url) const;
  // Own addition: the same below any download path, for a caller who names the session after it.
  static std::string downloadIdWithURL(const std::string& url, const std::string& downloadPath);
  static std::string getDefaultManifestLocalName();  // "manifest.mpd"
  // Throws "Failed to create download directory" (user info "NSError": platform::ErrorPtr) or
  // "Failed to write manifest to file". The URL is not used.
  static void _saveManifest(const platform::DataPtr& bytes, const std::string& url,
                            const std::string& directory);
  // The stored manifest's file name, the default one when there is none.
  std::string findManifestLocalNameForDownloadId(const std::string& downloadId) const;

  // Every stored download that has a properties file, active or not; empty: none.
  std::vector<Properties> downloadedMovies() const;
  Sets activeDownloadSets() const;
  // Only what is active; null otherwise.
  Set fetchActiveDownloadSetForURL(const std::string& url) const;
  // What is active or stored, never the network; null otherwise, also when the stored manifest is
  // not usable or the download is being removed (the call comes from inside its removal). A stored
  // download goes on under the URL that it was made from.
  Set activateDownloadSetForURL(const std::string& url);
  Set activateDownloadSet(const Set& set);
  // The same, and the network when there is nothing. The block is called once: inside the call,
  // with the lock held, when nothing has to be fetched; else on the fetching thread, with the lock
  // held when there is a set. Null set: the error says why, and nothing was stored. A downloader
  // that is released meanwhile gives URLErrorCancelled.
  void fetchDownloadSetForURL(const std::string& url, FetchCompletion block);
  // Own addition: the second half of a fetch, for a manifest that the caller fetched. Null with an
  // `error` (may be null) when the download is being removed or the playlist is not usable, before
  // anything was stored, or when the manifest cannot be stored: then QNUnderlyingErrorKey holds
  // what the file system said. A set that is active already is returned instead; a stored manifest
  // is replaced.
  Set storeDownloadSetForURL(const std::string& url, const std::shared_ptr<QNPlaylist>& playlist,
                             const platform::DataPtr& manifest, platform::ErrorPtr* error);

  // Each throws "DownloadSet is not owned by this instance" when no active set has the set's
  // identifier. `download` and `remove` throw "Download is held by <holder>" (user info
  // QNDownloadHolderKey) while another downloader works on the download, before anything is
  // changed: with another session in this process, or in another one. `pause` and `resume` tell
  // whether the set is in that state afterwards, `download` and `cancel` whether they acted.
  // `remove` takes a set of the same identifier below another download path for one that is not
  // owned, and throws "Failed to remove files for DownloadSet" (user info "NSError"). They run
  // inside a background task of the platform; `pause`, `resume` and `cancel` end it only when they
  // act, and leave it to expire otherwise.
  bool download(const Set& set);
  bool pause(const Set& set);
  bool resume(const Set& set);
  bool cancel(const Set& set);
  bool remove(const Set& set);
  void pauseAll();
  void resumeAll();
  void cancelAll();
  // Also downloads that are not active: the whole download path. One that is a mount point or a
  // link stays, empty. Throws "Failed to remove all downloader files" (user info "NSError", the
  // first of the failures); sets whose directories are gone are no longer active then. While
  // another downloader holds one of the downloads it throws like `remove`, before anything is
  // cancelled or removed.
  void removeAll();

  // For the application's launch by the transfer service: the handler is called on the main queue
  // when all held events were delivered, also when they were before. Null is ignored.
  void handleBackgroundEventsWithCompletionHandler(std::function<void()> handler);
  // Observers of the application's notifications. Entering the foreground suspends the running
  // tasks of this downloader's resources and resumes, a second later, those that are still to run,
  // which wakes stalled transfers.
  void handleEnterForeground();
  void handleLeaveForeground();

  // QNSessionController.
  std::shared_ptr<platform::URLSession> downloadSession() override;
  void resourceAttachTask(const std::shared_ptr<QNResourceDownloadInfo>& resource,
                          const std::shared_ptr<platform::URLSessionDownloadTask>& task) override;
  void resourceDetachTask(const std::shared_ptr<QNResourceDownloadInfo>& resource,
                          const std::shared_ptr<platform::URLSessionDownloadTask>& task) override;

  // platform::URLSessionDelegate. Nothing leaves these as an exception.
  void URLSessionDownloadTaskDidWriteData(
      const std::shared_ptr<platform::URLSession>& session,
      const std::shared_ptr<platform::URLSessionDownloadTask>& task, int64_t bytesWritten,
      int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite) override;
  void URLSessionDownloadTaskDidFinishDownloadingToURL(
      const std::shared_ptr<platform::URLSession>& session,
      const std::shared_ptr<platform::URLSessionDownloadTask>& task,
      const platform::URLPtr& location) override;
  void URLSessionTaskDidCompleteWithError(
      const std::shared_ptr<platform::URLSession>& session,
      const std::shared_ptr<platform::URLSessionDownloadTask>& task,
      const platform::ErrorPtr& error) override;
  void URLSessionDidFinishEventsForBackgroundURLSession(
      const std::shared_ptr<platform::URLSession>& session) override;

 private:
  using Resource = std::shared_ptr<QNResourceDownloadInfo>;
  using Task = std::shared_ptr<platform::URLSessionDownloadTask>;
  using Record = std::shared_ptr<QNDownloadRecord>;
  using Records = std::map<std::string, Record>;  // by the manifest URL
  using Hold = std::shared_ptr<const QNDownloadHold>;
  struct OwnHolds {
    std::vector<Hold> holds;
    std::set<platform::FileManager::Identity> directories;
  };

  QNMovieDownloader(bool cellularAccess, bool discretionaryMode, std::string downloadPath);
  platform::URLSessionConfiguration configuration(const std::optional<std::string>& identifier,
                                                  const ConfigureSession& configure) const;
  void start(const std::optional<std::string>& identifier, const ConfigureSession& configure);

  std::string directoryOf(const std::string& downloadId) const;
  // What the record of a download that is not active says, else null. It may read files and wait
  // for the disk, and is therefore called before the lock is taken.
  Record recordOf(const std::string& downloadId) const;
  Set activate(const std::string& url, const Record& record);
  Set activeSet(const std::string& downloadId) const REQUIRES(mutex_);
  // What is active or stored; null with an error when what is stored is not usable.
  Set activeOrStoredSet(const std::string& url, const std::string& downloadId, const Record& record,
                        platform::ErrorPtr* error) REQUIRES(mutex_);
  Set _downloadSetWithPlaylist(const std::shared_ptr<QNPlaylist>& playlist,
                               const std::string& downloadPath, const std::string& manifestName,
                               const std::string& sourceURL, const std::string& downloadId,
                               const Record& record, std::function<void()> beforeStoring = {})
      REQUIRES(mutex_);
  Set storeWithRecord(const std::string& url, const std::shared_ptr<QNPlaylist>& playlist,
                      const platform::DataPtr& manifest, const Record& record,
                      platform::ErrorPtr* error);
  std::string settledSourceURL(const std::string& url, const std::string& directory,
                               const std::string& manifestName) const;
  void completeFetch(const std::string& url, const std::shared_ptr<QNPlaylist>& playlist,
                     const platform::DataPtr& manifest, const platform::ErrorPtr& error,
                     const FetchCompletion& block);

  void _validateSet(const Set& set) const REQUIRES(mutex_);
  void _pause(const Set& set) REQUIRES(mutex_);
  void _resume(const Set& set) REQUIRES(mutex_);
  void _cancel(const Set& set) REQUIRES(mutex_);
  void _remove(const Set& set) REQUIRES(mutex_);
  OwnHolds _holdsForRemoval() const REQUIRES(mutex_);
  platform::ErrorPtr _removeRoot(const OwnHolds& own) REQUIRES(mutex_);
  void finishRemovals();
  void _pauseAll() REQUIRES(mutex_);
  void _resumeAll() REQUIRES(mutex_);
  Sets setsInMap() const REQUIRES(mutex_);
  bool isActive(const Set& set) const REQUIRES(mutex_);
  bool isBeingRemoved(const std::string& downloadId) const REQUIRES(mutex_);

  void _reattachTasks(const platform::URLSession::Tasks& tasks);
  struct FoundTask;
  using Holds = std::map<std::string, Hold>;  // by the download's identifier
  Holds holdsForTasks(const std::vector<FoundTask>& tasks) const;
  Records recordsOf(const std::vector<FoundTask>& tasks) const;
  void reattachTask(const FoundTask& task, const Holds& holds, Records& records) REQUIRES(mutex_);
  void refreshTasks(const platform::URLSession::Tasks& tasks);
  bool isRunningTask(const Task& task) const REQUIRES(mutex_);
  bool suspendForRefresh(const Task& task);
  void resumeAfterRefresh(const Task& task);
  Resource resourceOfTask(const Task& task) REQUIRES(mutex_);
  [[nodiscard]] Resource _handleCompletedResource(const Resource& resource, const Task& task,
                                                  const std::string& location,
                                                  const QNStoredFile& file) REQUIRES(mutex_);
  platform::ErrorPtr moveIntoPlace(const Resource& resource, const std::string& location,
                                   const QNStoredFile& file) REQUIRES(mutex_);
  void completeStoredResource(const Resource& resource, const Task& task) REQUIRES(mutex_);
  void _handleFailedResource(const Resource& resource, const platform::ErrorPtr& error)
      REQUIRES(mutex_);
  static platform::ErrorPtr _makeHTTPError(const platform::URLResponsePtr& response);

  // Constant after construction.
  const std::shared_ptr<platform::RecursiveMutex> mutexOwner_;
  platform::RecursiveMutex& mutex_;
  const bool allowsCellularAccess_;
  const bool discretionary_;
  std::shared_ptr<platform::URLSession> session_;
  std::vector<platform::NotificationCenter::Observer> observers_;

  // The path has a lock of its own, so that what only reads files waits for nobody.
  mutable platform::Mutex pathMutex_;
  std::string downloadPath_ GUARDED_BY(pathMutex_);
  QNHeadersPtr additionalHeaders_ GUARDED_BY(mutex_);
  std::optional<QNHeaderOrigins> headerOrigins_ GUARDED_BY(mutex_);
  std::map<std::string, Set> downloadIdSetMap_ GUARDED_BY(mutex_);
  bool removingAll_ GUARDED_BY(mutex_) = false;  // nothing that is stored becomes active
  bool reattached_ GUARDED_BY(mutex_) = false;   // the session's tasks were taken back
  bool refreshDue_ GUARDED_BY(mutex_) = false;   // the foreground was entered before that
  std::unordered_map<Task, Resource> tasks_ GUARDED_BY(mutex_);
  std::vector<std::function<void()>> backgroundCompletionHandlers_ GUARDED_BY(mutex_);
};
