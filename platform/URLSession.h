#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/URL.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"

namespace platform {

class URLSession;
class URLSessionDownloadTask;

// "Unknown" among byte counts of a task.
inline constexpr int64_t URLSessionTransferSizeUnknown = -1;

enum class URLSessionTaskState : int { Running = 0, Suspended = 1, Canceling = 2, Completed = 3 };

// Why a task does not transfer at the moment.
enum class URLSessionTaskWait : int {
  None = 0,   // transferring, or done
  Suspended,  // by the application
  Limit,      // of transfers per host or overall
  Network,    // not reachable
  Metered,    // the default network is metered and cellular access is off (or the task is
              // discretionary)
  Retry,      // until retryTime
  DiskFull,
};

struct URLSessionTaskWaitReason {
  URLSessionTaskWait wait = URLSessionTaskWait::None;
  double secondsUntilRetry = 0;  // for Retry
  std::string detail;            // one line for a person, may be empty
};

// A command that starts the application again when events wait for it.
struct LaunchCommand {
  std::vector<std::string> argv;
  std::map<std::string, std::string> environment;
  std::string workingDirectory;
  bool operator==(const LaunchCommand&) const = default;
};

// How a session is made. A plain value; the defaults of the limits are process-wide and can be set
// by environment variables (documented in docs/storage.md).
struct QN_EXPORT URLSessionConfiguration {
  // A background configuration: transfers are remembered under the identifier, across launches.
  static URLSessionConfiguration backgroundSessionConfigurationWithIdentifier(
      std::string identifier);

  std::string identifier;
  bool ephemeral = false;  // tasks of an earlier launch are removed, not offered
  bool sessionSendsLaunchEvents = false;
  bool allowsCellularAccess = true;
  bool discretionary = false;

  // Own fields of this platform.
  std::string stateDirectory;  // where session stores live; empty: $QN_STATE_DIR,
                               // $XDG_STATE_HOME/..., ~/...
  // Directory on the file system of the download root; partial files lie there so that a finished
  // file is moved by a rename. Empty: beside the store.
  std::string partialDirectory;
  int maximumConnectionsPerHost = 0;   // 0: the process-wide default
  int maximumTransfers = 0;            // overall, 0: the process-wide default
  int64_t maximumBytesPerSecond = -1;  // -1: the process-wide default, 0: no limit
  double connectTimeoutSeconds = 0;    // 0: the process-wide default
  double stallTimeoutSeconds = 0;      // without a byte; 0: the process-wide default
  double retryBoundSeconds =
      -1;  // without progress before a failure is final; -1: the default (60)
  double diskFullBoundSeconds = -1;  // -1: the default
  std::string caFile;                // PEM; empty: the system's
  bool useService = false;           // transfers run in qn-transferd
  std::optional<LaunchCommand> launchCommand;
};

// The application's observer of one session, held weakly. All calls come on the session's one
// serial delegate queue (a thread of the session's own), one at a time, with no lock held, never
// from inside a call that the application made. From inside a call every operation of session and
// tasks may be used, also dropping the last reference to the session. Exceptions that leave a
// callback are reported to the log and end there.
class QN_EXPORT URLSessionDelegate {
 public:
  virtual ~URLSessionDelegate();

  // Progress, coalesced; for every response at least once before the file is offered, also for an
  // empty body. The first report of a response that starts over has bytesWritten ==
  // totalBytesWritten. Expected is -1 when unknown.
  virtual void URLSessionDownloadTaskDidWriteData(
      const std::shared_ptr<URLSession>& session,
      const std::shared_ptr<URLSessionDownloadTask>& task, int64_t bytesWritten,
      int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite);
  // The body is whole, in the file `location`; the callee moves it away before it returns, what is
  // left is deleted.
  virtual void URLSessionDownloadTaskDidFinishDownloadingToURL(
      const std::shared_ptr<URLSession>& session,
      const std::shared_ptr<URLSessionDownloadTask>& task, const URLPtr& location);
  // The last event of a task: after the finished file with a null error, else with the error alone.
  // A cancelled task ends with URLErrorCancelled.
  virtual void URLSessionTaskDidCompleteWithError(
      const std::shared_ptr<URLSession>& session,
      const std::shared_ptr<URLSessionDownloadTask>& task, const ErrorPtr& error);
  // Once after the last event that was held while no delegate was there, and again after
  // tellEndOfBackgroundEvents().
  virtual void URLSessionDidFinishEventsForBackgroundURLSession(
      const std::shared_ptr<URLSession>& session);
};

// One transfer. Thread-safe; no call throws, blocks on the delegate or waits for the network. The
// object is one and the same for as long as anybody holds it: events and lists of tasks give the
// pointer that the application got.
class QN_EXPORT URLSessionDownloadTask {
 public:
  virtual ~URLSessionDownloadTask();

  virtual uint64_t taskIdentifier() const = 0;  // never used again within the session's store
  virtual URLSessionTaskState state() const = 0;
  // Free text of the application's, nullopt when there is none; durable when the call (or the
  // delegate call around it) returns. May be set until the task is completed.
  virtual std::optional<std::string> taskDescription() const = 0;
  virtual void setTaskDescription(std::optional<std::string> description) = 0;
  // The request that the task was made from, with all its headers (also for a task made from resume
  // data).
  virtual URLRequestPtr originalRequest() const = 0;
  virtual URLResponsePtr response() const = 0;  // null before one came
  virtual ErrorPtr error() const = 0;           // null unless it failed
  virtual int64_t countOfBytesReceived() const = 0;
  virtual int64_t countOfBytesExpectedToReceive()
      const = 0;  // URLSessionTransferSizeUnknown when not known
  virtual URLSessionTaskWaitReason waitReason() const = 0;
  // ContentHash of the finished file, taken while its bytes came; nullopt where that could not be
  // done, as of a file that was continued: then whoever wants it reads the file.
  virtual std::optional<uint64_t> hashOfBytesReceived() const { return std::nullopt; }

  virtual void resume() = 0;
  virtual void suspend() = 0;
  // Drops the data, also when the task has ended meanwhile and that was not told yet; the task ends
  // with URLErrorCancelled, and is canceling until then, also in the next launch. Nothing on a
  // completed task.
  virtual void cancel() = 0;
};

// The one-shot fetch of the shared session, whole body in memory.
class QN_EXPORT URLSessionDataTask {
 public:
  virtual ~URLSessionDataTask();
  virtual void resume() = 0;  // a new task is suspended
  virtual void cancel() = 0;  // the completion is still called, with URLErrorCancelled
};

// A background transfer session, or the shared session. Thread-safe. The last reference may be
// dropped anywhere, also inside a callback; no callback comes after that. Transfers of a background
// session in this process then stop, those in the service go on; either way their tasks stay in the
// store for the next launch.
class QN_EXPORT URLSession : public std::enable_shared_from_this<URLSession> {
 public:
  using Tasks = std::vector<std::shared_ptr<URLSessionDownloadTask>>;
  // Exactly one of bytes and error is null (both may be, when the platform gave neither). Called
  // once, on a thread of the session's.
  using DataCompletion = std::function<void(const DataPtr& bytes, const URLResponsePtr& response,
                                            const ErrorPtr& error)>;

  // A session over the installed implementation. Throws platform::Exception "NSURLSessionException"
  // when another process holds the identifier (the reason names it, QNURLSessionHolderKey in the
  // user info says who), its store was written by a newer version, or it cannot be opened.
  static std::shared_ptr<URLSession> sessionWithConfiguration(
      const URLSessionConfiguration& configuration, std::weak_ptr<URLSessionDelegate> delegate);
  // The process-wide session for one-shot fetches; it has no store and no download tasks.
  static std::shared_ptr<URLSession> sharedSession();

  virtual ~URLSession();

  virtual const URLSessionConfiguration& configuration() const = 0;
  // The directory of the files that are being filled, which whoever fills them keeps under an
  // exclusive flock; empty without one.
  virtual std::string partialDirectory() const;
  // Of the machine that the session's files lie on (BootIdentifier.h).
  virtual std::string bootIdentifier() const;
  // A new task, suspended. Never null: what cannot be requested is a task that fails asynchronously
  // once resumed.
  virtual std::shared_ptr<URLSessionDownloadTask> downloadTaskWithRequest(
      const URLRequestPtr& request) = 0;
  virtual std::shared_ptr<URLSessionDownloadTask> downloadTaskWithResumeData(
      const DataPtr& resumeData) = 0;
  // The tasks that are not completed yet (a finished task counts until its last event was
  // delivered). The first request is answered inside the call, before anything is transferred and
  // any event is delivered; later ones on the delegate queue.
  virtual void getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) = 0;
  // The same list; what differs between the two on other platforms (data and upload tasks) does not
  // exist here.
  virtual void getAllTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) = 0;
  // For an application that was given one more handler to call at the end of background events: the
  // delegate is told of the end once for every call, after the last held event; when none is left,
  // at once. What it is told anyway counts as one. Nothing in a session without events.
  virtual void tellEndOfBackgroundEvents();
  // A fetch whose body is kept in memory: redirects are followed, http and https only, at most
  // `maximumBytes` after decoding (more is URLErrorDataLengthExceedsMaximum).
  virtual std::shared_ptr<URLSessionDataTask> dataTaskWithRequest(const URLRequestPtr& request,
                                                                  DataCompletion completion) = 0;

  // What makes sessions. The transfer room installs its own at start-up; tests install a scripted
  // one. Null restores the one that was installed first.
  using Provider = std::function<std::shared_ptr<URLSession>(const URLSessionConfiguration&,
                                                             std::weak_ptr<URLSessionDelegate>)>;
  static void setProvider(Provider provider);
  static void setSharedProvider(std::function<std::shared_ptr<URLSession>()> provider);
};

// What a manifest may weigh after decoding.
inline constexpr int64_t URLSessionMaximumDataBytes = int64_t{256} << 20;

}  // namespace platform
