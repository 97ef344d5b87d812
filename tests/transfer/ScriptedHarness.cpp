#include "tests/transfer/ScriptedHarness.h"

#include <chrono>
#include <utility>

#include "tests/support/TestContent.h"

namespace qntest {

namespace {

constexpr auto kPause = std::chrono::milliseconds(1);
constexpr const char* kBase = "http://scripted.example";

}  // namespace

ScriptedHarness::ScriptedHarness()
    : network_([this] { playNetwork(); }), queue_([this] { playQueue(); }) {}

ScriptedHarness::~ScriptedHarness() {
  stop_ = true;
  network_.join();
  queue_.join();
}

std::shared_ptr<platform::URLSession> ScriptedHarness::open(
    std::weak_ptr<platform::URLSessionDelegate> delegate) {
  // The threads may still have the session that the application dropped.
  while (sessions_.session())
    std::this_thread::sleep_for(kPause);
  const std::lock_guard lock(mutex_);
  answered_.clear();
  return platform::URLSession::sessionWithConfiguration(
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
          "org.example.scripted"),
      std::move(delegate));
}

std::string ScriptedHarness::url(const std::string& path) const {
  return kBase + path;
}

void ScriptedHarness::set(const std::string& path, const Answer& answer) {
  const std::lock_guard lock(mutex_);
  answers_[path] = answer;
}

void ScriptedHarness::serve(const std::string& path, uint64_t size) {
  set(path, {200, contentOf(path, 0, 0, size)});
}

void ScriptedHarness::servePage(const std::string& path, int status, const std::string& body) {
  set(path, {status, body});
}

void ScriptedHarness::serveHeld(const std::string& path, uint64_t size, uint64_t at) {
  set(path, {200, contentOf(path, 0, 0, size), at});
}

void ScriptedHarness::serveBroken(const std::string& path, uint64_t size, uint64_t at) {
  set(path, {200, contentOf(path, 0, 0, size), at, true});
}

void ScriptedHarness::release(const std::string& path) {
  const std::lock_guard lock(mutex_);
  answers_[path].stopAt = UINT64_MAX;
}

void ScriptedHarness::playNetwork() {
  for (; !stop_; std::this_thread::sleep_for(kPause)) {
    const std::lock_guard lock(mutex_);
    const auto session = sessions_.session();
    if (!session) continue;
    for (const Task& task : session->runningTasks())
      step(*session, task);
  }
}

// One event at a time, and the session is let go in between: the application may have dropped it.
void ScriptedHarness::playQueue() {
  for (; !stop_; std::this_thread::sleep_for(kPause)) {
    for (bool more = true; more && !stop_;) {
      auto session = sessions_.session();
      delivering_ = true;
      more = session && session->hasToldItsTasks() && session->deliverEvent();
      delivering_ = false;
      const std::lock_guard lock(mutex_);
      session = nullptr;
    }
  }
}

void ScriptedHarness::step(ScriptedSession& session, const Task& task) {
  const std::string path = task->originalRequest()->url()->path();
  const auto found = answers_.find(path);
  if (found == answers_.end()) return;
  const Answer& answer = found->second;
  bool& answered = answered_[task->taskIdentifier()];
  if (!answered) {
    answered = true;
    begin(session, task, answer);
  } else if (answer.stopAt == UINT64_MAX) {
    // A page is whole only after the application has seen its first report, as with a network
    // between them. Events are looked at first: one that is no longer there is being delivered.
    if (answer.status != 200 && (session.pendingEvents() > 0 || delivering_)) return;
    const auto received = static_cast<size_t>(task->countOfBytesReceived());
    if (received < answer.body.size()) (void)session.deliver(task, answer.body.substr(received));
    (void)session.finish(task);
  }
}

void ScriptedHarness::begin(ScriptedSession& session, const Task& task, const Answer& answer) {
  const auto received = static_cast<size_t>(task->countOfBytesReceived());
  const std::string rest = answer.body.substr(std::min(received, answer.body.size()));
  (void)session.respond(task, received > 0 ? 206 : answer.status,
                        static_cast<int64_t>(rest.size()));
  const uint64_t now = answer.stopAt == UINT64_MAX
                           ? rest.size()
                           : answer.stopAt - std::min<uint64_t>(received, answer.stopAt);
  if (now > 0 || rest.empty()) (void)session.deliver(task, rest.substr(0, now));
  if (answer.breaks) (void)session.fail(task, platform::URLErrorNetworkConnectionLost, true);
}

}  // namespace qntest
