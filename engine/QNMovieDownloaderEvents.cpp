#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "engine/QNDownloadHold.h"
#include "engine/QNDownloadRecord.h"
#include "engine/QNEngineLog.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNMovieDownloader.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "engine/QNResourceId.h"
#include "platform/ContentHash.h"
#include "platform/DispatchQueue.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/host/QNLog.h"

using platform::FileManager;
using platform::RecursiveLock;

// What the session tells, and the table of its tasks.

namespace {

constexpr int kOK = 200;
constexpr int kPartialContent = 206;
// A process that was killed gives its session up some time before its downloads.
constexpr auto kDyingHolder = std::chrono::seconds(1);

// Runs one session event. Nothing ends the process here: a broken promise of the engine, a delegate
// that is not there any more, a full memory are logged, and the next event comes.
template <class Body>
void handleEvent(const char* event, Body body) {
  try {
    body();
  } catch (...) {
    QNEngineLog(QNLogLevelError, "Error: Exception in session event " + std::string(event) + ": %@",
                platform::describeCurrentException());
  }
}

bool isCancellation(const platform::Error& error) {
  return error.domain() == platform::NSURLErrorDomain &&
         error.code() == platform::URLErrorCancelled;
}

std::shared_ptr<QNMovieDownloadSet> setOf(const QNResourceDownloadInfo& resource) {
  const auto quality = resource.quality();
  return quality ? quality->set() : nullptr;
}

// Reads the file where its bytes did not come in one piece.
QNStoredFile fileOf(const platform::URLSessionDownloadTask& task, const std::string& path) {
  QNStoredFile file;
  file.length = task.countOfBytesReceived();
  file.hash = task.hashOfBytesReceived();
  if (!file.hash) file.hash = platform::ContentHash::ofFile(path);
  if (const auto request = task.originalRequest()) {
    file.address = request->valueForHTTPHeaderField("Range").value_or("") + " " +
                   (request->url() ? request->url()->absoluteString() : "");
  }
  const auto response = std::dynamic_pointer_cast<const platform::HTTPURLResponse>(task.response());
  if (!response) return file;
  for (const char* const name : {"ETag", "Last-Modified"}) {
    if (auto value = response->allHeaderFields().get(name)) {
      file.validator = *std::move(value);
      break;
    }
  }
  return file;
}

std::string parentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

}  // namespace

struct QNMovieDownloader::FoundTask {
  Task task;
  std::shared_ptr<const QNResourceId> id;  // null without a description
};

// The table of tasks. Called by resources, under the lock that their set shares with this object.

std::shared_ptr<platform::URLSession> QNMovieDownloader::downloadSession() {
  return session_;
}

void QNMovieDownloader::resourceAttachTask(const Resource& resource,
                                           const Task& task) NO_THREAD_SAFETY_ANALYSIS {
  tasks_[task] = resource;
}

void QNMovieDownloader::resourceDetachTask(const Resource& /*resource*/,
                                           const Task& task) NO_THREAD_SAFETY_ANALYSIS {
  tasks_.erase(task);
}

// Null for a task that nobody waits for. Its set may be gone while it still runs: then it ends
// here.
QNMovieDownloader::Resource QNMovieDownloader::resourceOfTask(const Task& task) {
  const auto entry = tasks_.find(task);
  if (entry == tasks_.end()) return nullptr;
  Resource resource = entry->second;
  if (setOf(*resource)) return resource;
  tasks_.erase(entry);
  task->cancel();
  return nullptr;
}

// Events

void QNMovieDownloader::URLSessionDownloadTaskDidWriteData(
    const std::shared_ptr<platform::URLSession>& /*session*/, const Task& task,
    int64_t bytesWritten, int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite) {
  const auto self = shared_from_this();
  handleEvent("didWriteData", [&] {
    RecursiveLock lock(mutex_);
    const Resource resource = resourceOfTask(task);
    if (!resource) return;
    if (bytesWritten == totalBytesWritten) {
      if (const auto error = _makeHTTPError(task->response())) {
        task->cancel();
        _handleFailedResource(resource, error);
        return;
      }
    }
    setOf(*resource)->resourceBytesDownloadedAndExpected(resource, totalBytesWritten,
                                                         totalBytesExpectedToWrite);
  });
}

void QNMovieDownloader::URLSessionDownloadTaskDidFinishDownloadingToURL(
    const std::shared_ptr<platform::URLSession>& /*session*/, const Task& task,
    const platform::URLPtr& location) {
  const auto self = shared_from_this();
  handleEvent("didFinishDownloading", [&] {
    const std::string path = location->filePath().value_or("");
    const QNStoredFile file = fileOf(*task, path);
    Resource last;
    {
      RecursiveLock lock(mutex_);
      const Resource resource = resourceOfTask(task);
      if (!resource) return;
      if (const auto error = task->error()) return _handleFailedResource(resource, error);
      last = _handleCompletedResource(resource, task, path, file);
    }
    if (!last) return;
    // A quality is told and recorded only of what is on the disk, for which nobody else waits.
    const auto set = setOf(*last);
    if (set) set->flushStoredFiles();
    RecursiveLock lock(mutex_);
    if (last->downloadTask() == task && setOf(*last)) completeStoredResource(last, task);
  });
}

void QNMovieDownloader::URLSessionTaskDidCompleteWithError(
    const std::shared_ptr<platform::URLSession>& /*session*/, const Task& task,
    const platform::ErrorPtr& error) {
  if (!error) return;
  const auto self = shared_from_this();
  handleEvent("didComplete", [&] {
    RecursiveLock lock(mutex_);
    const Resource resource = resourceOfTask(task);
    // Every cancellation is our own, and accounted for already.
    if (!resource || isCancellation(*error)) return;
    // A resource without a place was requested from nowhere; that is not what a person wants to
    // read.
    const auto placeError = resource->placeError();
    _handleFailedResource(resource, placeError ? placeError : error);
  });
}

void QNMovieDownloader::URLSessionDidFinishEventsForBackgroundURLSession(
    const std::shared_ptr<platform::URLSession>& /*session*/) {
  const auto self = shared_from_this();
  handleEvent("didFinishEvents", [&] {
    RecursiveLock lock(mutex_);
    auto& handlers = backgroundCompletionHandlers_;
    const size_t count = tasks_.empty() ? handlers.size() : std::min<size_t>(1, handlers.size());
    for (size_t i = 0; i < count; ++i)
      platform::DispatchQueue::mainQueue()->async(std::move(handlers[i]));
    handlers.erase(handlers.begin(), handlers.begin() + static_cast<ptrdiff_t>(count));
  });
}

platform::ErrorPtr QNMovieDownloader::_makeHTTPError(const platform::URLResponsePtr& response) {
  const auto http = std::dynamic_pointer_cast<const platform::HTTPURLResponse>(response);
  if (!http) return nullptr;
  const int status = http->statusCode();
  if (status == kOK || status == kPartialContent) return nullptr;
  const auto text = platform::HTTPURLResponse::localizedStringForStatusCode(status);
  return platform::Error::errorWithDomain(QNDownloadHTTPErrorDomain, status,
                                          {{QNStatusMessageKey, text.value_or("Unknown Error")}});
}

void QNMovieDownloader::_handleFailedResource(const Resource& resource,
                                              const platform::ErrorPtr& error) {
  setOf(*resource)->resourceCompleteWithError(resource, error);
}

// The transfer service deletes the file when its callback returns, so it is moved in here. A file
// that is there is replaced in one step: until then the old one is whole.
platform::ErrorPtr QNMovieDownloader::moveIntoPlace(const Resource& resource,
                                                    const std::string& location,
                                                    const QNStoredFile& file) {
  const auto set = setOf(*resource);
  bool isThere = false;
  if (auto error = set->prepareToStore(resource, file, isThere)) return error;
  if (isThere) return nullptr;
  auto& files = FileManager::defaultManager();
  const std::string target = resource->resourcePath();
  auto error = files.moveItem(location, target);
  if (error && error->code() == ENOENT) {
    error = files.createDirectoryWithIntermediates(parentOf(target));
    if (!error) error = files.moveItem(location, target);
  }
  if (!error) set->didStore(resource, target);
  return error;
}

// Returns the resource when it is the last one of its quality: what was stored has to reach the
// disk then, without the lock, before it completes.
QNMovieDownloader::Resource QNMovieDownloader::_handleCompletedResource(const Resource& resource,
                                                                        const Task& task,
                                                                        const std::string& location,
                                                                        const QNStoredFile& file) {
  if (const auto error = moveIntoPlace(resource, location, file)) {
    _handleFailedResource(resource, error);
    return nullptr;
  }
  if (setOf(*resource)->isLastOfItsQuality(resource)) return resource;
  completeStoredResource(resource, task);
  return nullptr;
}

void QNMovieDownloader::completeStoredResource(const Resource& resource, const Task& task) {
  const auto set = setOf(*resource);
  set->resourceBytesDownloadedAndExpected(resource, task->countOfBytesReceived(),
                                          task->countOfBytesExpectedToReceive());
  // A delegate may have cancelled or removed the download in this last report.
  if (resource->downloadTask() != task) return;
  set->resourceCompleteWithError(resource, nullptr);
}

// After a relaunch

void QNMovieDownloader::_reattachTasks(const platform::URLSession::Tasks& tasks) {
  const auto self = shared_from_this();
  std::vector<FoundTask> found;
  for (const Task& task : tasks) {
    const auto description = task->taskDescription();
    found.push_back(
        {task, description ? QNResourceId::resourceIdWithJSONString(*description) : nullptr});
  }
  Holds holds;
  Records records;
  handleEvent("reattach", [&] {
    holds = holdsForTasks(found);
    records = recordsOf(found);
  });
  RecursiveLock lock(mutex_);
  for (const FoundTask& task : found) {
    handleEvent("reattach",
                [&]() NO_THREAD_SAFETY_ANALYSIS { reattachTask(task, holds, records); });
  }
  reattached_ = true;
  if (refreshDue_) handleEnterForeground();
}

// What the tasks write to is held before anything in it is looked at, by the identifiers of the
// downloads. Without the lock, since who held it may be about to go.
QNMovieDownloader::Holds QNMovieDownloader::holdsForTasks(
    const std::vector<FoundTask>& tasks) const {
  const auto deadline = QNDownloadHold::Clock::now() + kDyingHolder;
  std::set<std::string> seen;
  Holds holds;
  for (const FoundTask& task : tasks) {
    const auto url = task.id ? task.id->manifestURL() : std::nullopt;
    if (!url || !seen.insert(*url).second) continue;
    const std::string downloadId = downloadIdWithURL(*url);
    auto& hold = holds[downloadId];
    if (!hold) hold = QNDownloadHold::attemptUntil(directoryOf(downloadId), deadline).hold;
  }
  return holds;
}

QNMovieDownloader::Records QNMovieDownloader::recordsOf(const std::vector<FoundTask>& tasks) const {
  Records records;
  for (const FoundTask& task : tasks) {
    const auto url = task.id ? task.id->manifestURL() : std::nullopt;
    if (url && !records.contains(*url)) records.emplace(*url, recordOf(downloadIdWithURL(*url)));
  }
  return records;
}

// A task that no resource takes ends here: its bytes belong nowhere.
void QNMovieDownloader::reattachTask(const FoundTask& found, const Holds& holds, Records& records) {
  const auto& [task, id] = found;
  if (!id) {
    task->cancel();
    return;
  }
  bool taken = false;
  handleEvent("reattach", [&, &task = task, &id = id]() NO_THREAD_SAFETY_ANALYSIS {
    if (!id->manifestURL()) return;
    // For the first task of a download; the others find the set.
    const Record record = std::move(records[*id->manifestURL()]);
    const Set set = activate(*id->manifestURL(), record);
    const auto hold = set ? holds.find(set->downloadId()) : holds.end();
    if (hold != holds.end() && hold->second && !set->currentHold()) set->useHold(hold->second);
    taken = set && set->reattachResource(*id, task);
  });
  if (taken || tasks_.contains(task)) return;
  task->setTaskDescription(std::nullopt);
  task->cancel();
}
