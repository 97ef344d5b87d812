#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/URLSession.h"
#include "tests/support/KillSwitch.h"
#include "tests/support/TempDirectory.h"

namespace qntest {

class ScriptedSession;
class ScriptedTask;

// What a session remembers of a task. A plain value: the durable one is a copy.
struct ScriptedRecord {
  enum class Outcome { None, Finished, Failed };

  platform::URLRequestPtr request;
  std::optional<std::string> description;
  platform::URLSessionTaskState state = platform::URLSessionTaskState::Suspended;
  std::string body;  // what was received
  int64_t expected = platform::URLSessionTransferSizeUnknown;
  platform::URLResponsePtr response;
  bool reported = false;  // this response has had a report
  Outcome outcome = Outcome::None;
  platform::ErrorPtr error;  // of a failure
  std::string file;          // of a success
  std::string resumeKey;     // of a failure that can be continued
};

// What survives a kill: the tasks of one session identifier. One session at a time holds it.
class ScriptedStore {
 public:
  explicit ScriptedStore(std::shared_ptr<KillSwitch> killSwitch = nullptr);

  // Descriptions and states as one line each, in the order of the tasks' identifiers.
  std::string describe() const;
  size_t size() const;
  // A store that cannot be opened throws this reason, as long as there is one.
  void refuse(std::optional<std::string> reason) { refusal_ = std::move(reason); }
  // Called once, when the session is asked for its tasks, before it answers.
  std::function<void()> beforeTasksAreAsked;
  // From now on the sessions over this store run in another boot of the machine.
  void setBoot(std::string identifier) { boot_ = std::move(identifier); }

 private:
  friend class ScriptedSession;
  friend class ScriptedTask;

  mutable std::recursive_mutex mutex_;  // of the store and of the session that holds it
  std::map<uint64_t, ScriptedRecord> durable_;
  std::map<std::string, std::string> resumable_;  // partial bodies by the text of their resume data
  std::map<std::string, platform::URLRequestPtr> resumableRequests_;
  uint64_t nextIdentifier_ = 1;
  uint64_t nextResumable_ = 1;
  bool held_ = false;
  std::string boot_ = "boot 1";
  std::optional<std::string> refusal_;
  std::shared_ptr<KillSwitch> killSwitch_;
  TempDirectory directory_;
};

// A transfer session whose network is the test: nothing happens until the test says what does, and
// nothing is told to the delegate until it delivers the next event. Thread-safe; events are
// delivered on the thread that asks for them, one at a time.
class ScriptedSession : public platform::URLSession {
 public:
  using Task = std::shared_ptr<platform::URLSessionDownloadTask>;

  // Throws platform::Exception "NSURLSessionException" while another session holds the store.
  static std::shared_ptr<ScriptedSession> open(
      std::shared_ptr<ScriptedStore> store, const platform::URLSessionConfiguration& configuration,
      std::weak_ptr<platform::URLSessionDelegate> delegate);
  ~ScriptedSession() override;

  // The network. Each is false for a task that cannot do that now (it must be running).
  bool respond(const Task& task, int status, int64_t bodyBytes = -1,
               const platform::HTTPHeaders& headers = {});
  bool deliver(const Task& task, const std::string& bytes);
  bool finish(const Task& task);
  // With resume data the next task made from it continues after what was delivered.
  bool fail(const Task& task, int64_t urlErrorCode, bool withResumeData = false);
  bool failWithError(const Task& task, platform::ErrorPtr error);
  // All of it: status 200 or 206, the body in one piece, finished.
  bool serve(const Task& task, const std::string& body);

  // Delivers the next event; false when there is none, or when it is called from inside one.
  bool deliverEvent();
  size_t deliverEvents();
  size_t pendingEvents() const;
  bool hasToldItsTasks() const;
  void tellEventsFinished();

  // Not completed yet, in the order of their identifiers.
  Tasks tasks() const;
  Tasks runningTasks() const;
  // The first task that is not completed and whose URL ends like this; null when there is none.
  Task taskForURL(const std::string& ending) const;
  size_t tasksMade() const { return tasksMade_; }

  const platform::URLSessionConfiguration& configuration() const override { return configuration_; }
  std::string bootIdentifier() const override { return store_->boot_; }
  Task downloadTaskWithRequest(const platform::URLRequestPtr& request) override;
  Task downloadTaskWithResumeData(const platform::DataPtr& resumeData) override;
  void getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override;
  void getAllTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override;
  void tellEndOfBackgroundEvents() override;
  std::shared_ptr<platform::URLSessionDataTask> dataTaskWithRequest(
      const platform::URLRequestPtr& request, DataCompletion completion) override;

 private:
  friend class ScriptedTask;
  using Lock = std::lock_guard<std::recursive_mutex>;
  using Event = std::function<void(const std::shared_ptr<platform::URLSessionDelegate>&)>;

  struct Queued {
    uint64_t task = 0;  // 0: of none
    Event event;
    bool ends = false;  // the task is completed when this is told
    bool last = false;  // of its task
  };

  ScriptedSession(std::shared_ptr<ScriptedStore> store,
                  const platform::URLSessionConfiguration& configuration,
                  std::weak_ptr<platform::URLSessionDelegate> delegate);
  void recover();
  std::shared_ptr<ScriptedTask> makeTask(ScriptedRecord record);
  std::shared_ptr<ScriptedTask> running(const Task& task) const;
  void report(const std::shared_ptr<ScriptedTask>& task, int64_t bytesNow);
  void offerFile(const std::shared_ptr<ScriptedTask>& task);
  void complete(const std::shared_ptr<ScriptedTask>& task, platform::ErrorPtr error);
  void startTransfer(const std::shared_ptr<ScriptedTask>& task);
  void changed(uint64_t task);
  void commit(const std::set<uint64_t>& tasks, uint64_t finished);

  const std::shared_ptr<ScriptedStore> store_;
  const platform::URLSessionConfiguration configuration_;
  const std::weak_ptr<platform::URLSessionDelegate> delegate_;
  std::map<uint64_t, std::shared_ptr<ScriptedTask>> tasks_;
  std::deque<Queued> events_;
  std::mutex delivering_;
  std::optional<std::thread::id> deliverer_;
  std::set<uint64_t> changedInside_;  // by calls from inside the event that is being delivered
  bool asked_ = false;
  bool answered_ = false;
  std::atomic<bool> endDue_ = false;  // of the held events, and nobody has asked for it yet
  size_t tasksMade_ = 0;
};

class ScriptedTask : public platform::URLSessionDownloadTask,
                     public std::enable_shared_from_this<ScriptedTask> {
 public:
  ScriptedTask(std::shared_ptr<ScriptedStore> store, std::weak_ptr<ScriptedSession> session,
               uint64_t identifier, ScriptedRecord record);

  uint64_t taskIdentifier() const override { return identifier_; }
  platform::URLSessionTaskState state() const override;
  std::optional<std::string> taskDescription() const override;
  void setTaskDescription(std::optional<std::string> description) override;
  platform::URLRequestPtr originalRequest() const override;
  platform::URLResponsePtr response() const override;
  platform::ErrorPtr error() const override;
  int64_t countOfBytesReceived() const override;
  int64_t countOfBytesExpectedToReceive() const override;
  platform::URLSessionTaskWaitReason waitReason() const override;
  void resume() override;
  void suspend() override;
  void cancel() override;

 private:
  friend class ScriptedSession;
  void setState(platform::URLSessionTaskState state);

  const std::shared_ptr<ScriptedStore> store_;
  const std::weak_ptr<ScriptedSession> session_;
  const uint64_t identifier_;
  ScriptedRecord record_;  // guarded by the store's mutex
};

// Puts scripted sessions in the place of the real ones for as long as it lives: one store for each
// identifier, kept across sessions.
class ScriptedSessions {
 public:
  explicit ScriptedSessions(std::shared_ptr<KillSwitch> killSwitch = nullptr);
  ~ScriptedSessions();
  ScriptedSessions(const ScriptedSessions&) = delete;
  ScriptedSessions& operator=(const ScriptedSessions&) = delete;

  std::shared_ptr<ScriptedStore> store(const std::string& identifier);
  // The session that was opened last, null when it is gone.
  std::shared_ptr<ScriptedSession> session() const;

 private:
  struct State {
    std::shared_ptr<KillSwitch> killSwitch;
    std::map<std::string, std::shared_ptr<ScriptedStore>> stores;
    std::mutex mutex;  // of `last`, which a harness asks for on a thread of its own
    std::weak_ptr<ScriptedSession> last;

    std::shared_ptr<ScriptedStore> store(const std::string& identifier);
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace qntest
