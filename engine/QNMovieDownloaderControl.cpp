#include <cerrno>
#include <chrono>
#include <utility>

#include <unistd.h>

#include "engine/QNDownloadHold.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNMovieDownloader.h"
#include "engine/QNResourceDownloadInfo.h"
#include "platform/DispatchQueue.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"

using platform::Application;
using platform::FileManager;
using platform::RecursiveLock;

// What an application does with its sets, and the application's own life cycle.

namespace {

[[noreturn]] void refuseSet() {
  throw platform::Exception(QNMovieDownloaderException,
                            "DownloadSet is not owned by this instance");
}

// What is being removed lies here, one level deeper than a download would: half of one is never
// taken for a whole.
constexpr const char* kRemovedDirectory = ".qn-removed";
constexpr const char* kPartialPrefix = ".qn-partial-";
constexpr auto kRefreshDelay = std::chrono::nanoseconds(1'000'000'000);

Application::BackgroundTask begin(const char* name) {
  return Application::sharedApplication().beginBackgroundTaskWithName(name);
}

void end(Application::BackgroundTask task) {
  Application::sharedApplication().endBackgroundTask(task);
}

// Ends its background task however the scope is left.
class ScopedBackgroundTask {
 public:
  explicit ScopedBackgroundTask(const char* name) : task_(begin(name)) {}
  ~ScopedBackgroundTask() { end(task_); }
  ScopedBackgroundTask(const ScopedBackgroundTask&) = delete;
  ScopedBackgroundTask& operator=(const ScopedBackgroundTask&) = delete;

 private:
  const Application::BackgroundTask task_;
};

template <class T>
class ScopedValue {
 public:
  ScopedValue(T& variable, T value)
      : variable_(variable), before_(std::exchange(variable, value)) {}
  ~ScopedValue() { variable_ = before_; }
  ScopedValue(const ScopedValue&) = delete;
  ScopedValue& operator=(const ScopedValue&) = delete;

 private:
  T& variable_;
  const T before_;
};

std::string parentOf(const std::string& path) {
  const size_t end = path.find_last_not_of('/');
  const size_t slash = path.rfind('/', end);
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::string nameOf(const std::string& path) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return {};
  return path.substr(path.rfind('/', end) + 1, end - path.rfind('/', end));
}

bool isDownload(const FileManager::Entry& entry, const std::string& path) {
  return entry.isDirectory && entry.name != kRemovedDirectory &&
         FileManager::defaultManager().fileExistsAtPath(
             FileManager::pathByAppending(path, QNMoviePropertiesFileName));
}

// Who keeps an entry of the root from being removed, empty when nobody does. Anything that is
// stored may be a download, also one that lost its properties. Partial files are kept by another
// process only: a session of this one makes their directory again.
std::string keeperOf(const FileManager::Entry& entry, const std::string& path) {
  if (!entry.isDirectory || entry.name == kRemovedDirectory) return {};
  if (!entry.name.starts_with(kPartialPrefix)) return QNDownloadHold::attempt(path).holder;
  const auto files = FileManager::defaultManager().contentsOfDirectory(path);
  if (!files || files->empty()) return {};
  const auto tried = QNDownloadHold::attempt(path);
  return tried.isOfThisProcess ? std::string() : tried.holder;
}

// A name that no earlier removal used, also of a process that was killed in it.
std::string placeForRemoved(const std::string& root, const std::string& name) {
  const auto now = std::chrono::system_clock::now().time_since_epoch().count();
  return FileManager::pathByAppending(
      FileManager::pathByAppending(root, kRemovedDirectory),
      name + "." + std::to_string(getpid()) + "." + std::to_string(now));
}

// Takes a directory away in one step and deletes it then. What cannot be taken away is deleted
// where it is.
platform::ErrorPtr removeDownload(const std::string& root, const std::string& path) {
  auto& files = FileManager::defaultManager();
  const std::string parent = FileManager::pathByAppending(root, kRemovedDirectory);
  const std::string removed = placeForRemoved(root, nameOf(path));
  (void)files.createDirectoryWithIntermediates(parent);
  const bool isAway = files.moveItem(path, removed) == nullptr;
  auto error = files.removeItem(isAway ? removed : path);
  // What an earlier launch left is deleted in the background, this with it if it is faster.
  if (isAway && error && error->code() == ENOENT) error = nullptr;
  const auto others = files.contentsOfDirectory(parent);
  if (others && others->empty()) (void)files.removeItem(parent);
  return error;
}

}  // namespace

void QNMovieDownloader::_validateSet(const Set& set) const {
  if (!set || !activeSet(set->downloadId())) refuseSet();
}

bool QNMovieDownloader::isActive(const Set& set) const {
  return activeSet(set->downloadId()) == set;
}

// What is on its way out is neither handed out nor put in its place: that would go with it.
bool QNMovieDownloader::isBeingRemoved(const std::string& downloadId) const {
  const Set set = activeSet(downloadId);
  return removingAll_ || (set && set->isRemoved());
}

// When a set is not owned the background task stays open as well, for the system to expire.

bool QNMovieDownloader::download(const Set& set) {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const auto task = begin("QNMovieDownloader: Initiate download");
  _validateSet(set);
  if (headerOrigins_ && set->status() == QNDownloadStatusIdle)
    set->setHeaderOrigins(headerOrigins_);
  const bool started = set->downloadWithAdditionalHeaders(additionalHeaders_);
  end(task);
  return started;
}

bool QNMovieDownloader::pause(const Set& set) {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const auto task = begin("QNMovieDownloader: Pause download");
  _validateSet(set);
  if (set->status() != QNDownloadStatusRunning) return set->status() == QNDownloadStatusPaused;
  _pause(set);
  end(task);
  return true;
}

bool QNMovieDownloader::resume(const Set& set) {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const auto task = begin("QNMovieDownloader: Resume download");
  _validateSet(set);
  if (set->status() != QNDownloadStatusPaused) return set->status() == QNDownloadStatusRunning;
  _resume(set);
  end(task);
  return true;
}

bool QNMovieDownloader::cancel(const Set& set) {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const auto task = begin("QNMovieDownloader: Cancel download");
  _validateSet(set);
  if (set->status() == QNDownloadStatusIdle) return false;
  _cancel(set);
  end(task);
  return true;
}

bool QNMovieDownloader::remove(const Set& set) {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const auto task = begin("QNMovieDownloader: Remove download");
  _validateSet(set);
  // The identifier decides: what is active may be a later object of the same download. From here on
  // a delegate can start neither again, and neither writes to the directory. Both are held: a
  // delegate may drop the caller's.
  const Sets sets = {set, activeSet(set->downloadId())};
  if (sets.back()->downloadPath() != set->downloadPath()) refuseSet();
  const Hold hold = sets.back()->takeHold();
  for (const Set& one : sets)
    one->setRemoved(true);
  for (const Set& one : sets) {
    if (one->status() != QNDownloadStatusIdle) _cancel(one);
  }
  const Set& active = sets.back();
  // A delegate may have removed it meanwhile, and put another download in its place.
  if (isActive(active)) {
    try {
      _remove(sets.front());
    } catch (...) {
      active->setRemoved(false);
      throw;
    }
    downloadIdSetMap_.erase(active->downloadId());
  }
  end(task);
  return true;
}

void QNMovieDownloader::_pause(const Set& set) {
  set->pause();
}

void QNMovieDownloader::_resume(const Set& set) {
  set->resume();
}

void QNMovieDownloader::_cancel(const Set& set) {
  set->cancel();
}

void QNMovieDownloader::_remove(const Set& set) {
  const std::string& path = set->downloadPath();
  if (!FileManager::defaultManager().fileExistsAtPath(path)) return;
  if (auto error = removeDownload(parentOf(path), path)) {
    throw platform::Exception(QNMovieDownloaderException, "Failed to remove files for DownloadSet",
                              {{"NSError", std::move(error)}});
  }
}

void QNMovieDownloader::_pauseAll() {
  for (const Set& set : setsInMap()) {
    if (isActive(set) && set->status() == QNDownloadStatusRunning) _pause(set);
  }
}

void QNMovieDownloader::_resumeAll() {
  for (const Set& set : setsInMap()) {
    if (isActive(set) && set->status() == QNDownloadStatusPaused) _resume(set);
  }
}

void QNMovieDownloader::pauseAll() {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const ScopedBackgroundTask task("QNMovieDownloader: Pause all");
  _pauseAll();
}

void QNMovieDownloader::resumeAll() {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const ScopedBackgroundTask task("QNMovieDownloader: Resume all");
  _resumeAll();
}

void QNMovieDownloader::cancelAll() {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const ScopedBackgroundTask task("QNMovieDownloader: Cancel all");
  for (const Set& set : setsInMap()) {
    if (isActive(set)) _cancel(set);
  }
}

void QNMovieDownloader::removeAll() {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  const ScopedBackgroundTask task("QNMovieDownloader: Remove all");
  // What a delegate finds stored meanwhile is on its way out.
  const ScopedValue<bool> removing(removingAll_, true);
  const OwnHolds own = _holdsForRemoval();
  const Sets sets = setsInMap();
  for (const Set& set : sets)
    set->setRemoved(true);
  for (const Set& set : sets) {
    if (set->status() != QNDownloadStatusIdle) _cancel(set);
  }
  auto error = _removeRoot(own);
  // What is gone is gone for good, whatever resisted; the rest goes on as it was.
  for (const Set& set : sets) {
    const bool isLeft =
        error && FileManager::defaultManager().fileExistsAtPath(set->downloadPath());
    if (isLeft) set->setRemoved(false);
    if (!isLeft && isActive(set)) downloadIdSetMap_.erase(set->downloadId());
  }
  if (error) {
    throw platform::Exception(QNMovieDownloaderException, "Failed to remove all downloader files",
                              {{"NSError", std::move(error)}});
  }
  downloadIdSetMap_.clear();
}

// What its own sets hold goes; somebody else's download is a reason to leave all alone.
QNMovieDownloader::OwnHolds QNMovieDownloader::_holdsForRemoval() const {
  auto& files = FileManager::defaultManager();
  OwnHolds own;
  for (const Set& set : setsInMap()) {
    auto hold = set->currentHold();
    const auto directory = hold ? files.identityOf(set->downloadPath()) : std::nullopt;
    if (!directory) continue;
    own.holds.push_back(std::move(hold));
    own.directories.insert(*directory);
  }
  // The transfer service may have this session's partial files.
  if (const auto partial = files.identityOf(session_->partialDirectory()))
    own.directories.insert(*partial);
  const std::string root = downloadPath();
  for (const auto& entry :
       files.contentsOfDirectory(root).value_or(std::vector<FileManager::Entry>())) {
    const std::string path = FileManager::pathByAppending(root, entry.name);
    const auto directory = files.identityOf(path);
    if (directory && own.directories.contains(*directory)) continue;
    const std::string keeper = keeperOf(entry, path);
    if (!keeper.empty()) QNDownloadHold::refuse(path, keeper);
  }
  return own;
}

// The downloads first, each in one step, so that a kill leaves whole ones only. A root that is a
// mount point, or a link to a directory, stays where somebody put it.
platform::ErrorPtr QNMovieDownloader::_removeRoot(const OwnHolds& own) {
  auto& files = FileManager::defaultManager();
  const std::string root = downloadPath();
  if (!files.fileExistsAtPath(root)) return nullptr;
  platform::ErrorPtr resisted;
  const auto note = [&](platform::ErrorPtr error) {
    const bool isGone = error && error->code() == ENOENT;  // somebody was faster
    if (error && !isGone && !resisted) resisted = std::move(error);
  };
  const auto entries = [&] {
    return files.contentsOfDirectory(root).value_or(std::vector<FileManager::Entry>());
  };
  for (const bool isForDownloads : {true, false}) {
    for (const auto& entry : entries()) {
      const std::string path = FileManager::pathByAppending(root, entry.name);
      if (isForDownloads && !isDownload(entry, path)) continue;
      // Each by itself: a root may hold more downloads than a process may open.
      const auto directory = files.identityOf(path);
      const bool isOwn = directory && own.directories.contains(*directory);
      if (!isOwn && !keeperOf(entry, path).empty()) {
        note(platform::Error::errorWithErrno(EBUSY, "Cannot remove", path));
      } else {
        note(isForDownloads ? removeDownload(root, path) : files.removeItem(path));
      }
    }
  }
  if (resisted) return resisted;
  if (files.isSymbolicLink(root)) {
    // One that cannot be read was not emptied.
    return files.contentsOfDirectory(root)
               ? nullptr
               : platform::Error::errorWithErrno(EACCES, "Cannot read", root);
  }
  auto error = files.removeItem(root);
  return error && error->code() == EBUSY ? nullptr : error;
}

// Removals that an earlier launch did not finish.
void QNMovieDownloader::finishRemovals() {
  const std::string removed = FileManager::pathByAppending(downloadPath(), kRemovedDirectory);
  if (!FileManager::defaultManager().fileExistsAtPath(removed)) return;
  platform::DispatchQueue::globalBackgroundQueue()->async(
      [removed] { (void)FileManager::defaultManager().removeItem(removed); });
}

// Life cycle

void QNMovieDownloader::handleBackgroundEventsWithCompletionHandler(std::function<void()> handler) {
  if (!handler) return;
  RecursiveLock lock(mutex_);
  backgroundCompletionHandlers_.push_back(std::move(handler));
  // The events may have ended before this handler came.
  if (session_) session_->tellEndOfBackgroundEvents();
}

void QNMovieDownloader::handleLeaveForeground() {}

void QNMovieDownloader::handleEnterForeground() {
  const auto self = shared_from_this();
  RecursiveLock lock(mutex_);
  // The first question for the tasks is the one that takes them back.
  refreshDue_ = !reattached_;
  if (refreshDue_) return;
  const auto background = begin("QNMovieDownloader: Refresh all");
  session_->getAllTasksWithCompletionHandler(
      [weak = weak_from_this(), background](const platform::URLSession::Tasks& tasks) {
        if (const auto downloader = weak.lock()) downloader->refreshTasks(tasks);
        end(background);
      });
}

void QNMovieDownloader::refreshTasks(const platform::URLSession::Tasks& tasks) {
  RecursiveLock lock(mutex_);
  for (const Task& task : tasks) {
    if (task->state() != platform::URLSessionTaskState::Running) continue;
    platform::DispatchQueue::mainQueue()->async([weak = weak_from_this(), task] {
      const auto downloader = weak.lock();
      if (!downloader || !downloader->suspendForRefresh(task)) return;
      platform::DispatchQueue::mainQueue()->after(kRefreshDelay, [weak, task] {
        if (const auto later = weak.lock()) later->resumeAfterRefresh(task);
      });
    });
  }
}

// Meanwhile the task may have been paused, cancelled or completed: only what its resource says is
// running is touched, and nothing else is left suspended.
bool QNMovieDownloader::isRunningTask(const Task& task) const {
  const auto entry = tasks_.find(task);
  return entry != tasks_.end() && entry->second->status() == QNDownloadStatusRunning;
}

bool QNMovieDownloader::suspendForRefresh(const Task& task) {
  RecursiveLock lock(mutex_);
  if (!isRunningTask(task)) return false;
  task->suspend();
  return true;
}

void QNMovieDownloader::resumeAfterRefresh(const Task& task) {
  RecursiveLock lock(mutex_);
  if (isRunningTask(task)) task->resume();
}
