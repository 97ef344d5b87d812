#include "tests/transfer/ContractHarness.h"

#include <filesystem>
#include <utility>

#include "platform/FileDescriptor.h"
#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/ServiceSocket.h"
#include "tests/support/Processes.h"
#include "tests/support/TestContent.h"

namespace qntest {

namespace {

constexpr double kRetryBoundSeconds = 0.3;

}  // namespace

std::vector<std::string> partialFiles(const std::string& directory) {
  std::vector<std::string> files;
  std::error_code failed;
  std::filesystem::recursive_directory_iterator at(directory, failed), end;
  for (; !failed && at != end; at.increment(failed)) {
    std::error_code gone;
    const std::string path = at->path().string();
    const bool partial = path.find("partial", directory.size()) != std::string::npos;
    if (partial && at->is_regular_file(gone)) files.push_back(path);
  }
  return files;
}

std::ostream& operator<<(std::ostream& out, const Implementation& implementation) {
  return out << implementation.name;
}

TransferHarness::TransferHarness()
    : configuration_(
          platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
              "org.example.contract")) {
  configuration_.stateDirectory = directory_.path("state");
  configuration_.partialDirectory = directory_.path("partial");
  configuration_.retryBoundSeconds = kRetryBoundSeconds;
  configuration_.sessionSendsLaunchEvents = true;
}

std::shared_ptr<platform::URLSession> TransferHarness::open(
    std::weak_ptr<platform::URLSessionDelegate> delegate) {
  return platform::URLSession::sessionWithConfiguration(configuration_, std::move(delegate));
}

std::string TransferHarness::url(const std::string& path) const {
  return server_.url(path);
}

void TransferHarness::serve(const std::string& path, uint64_t size) {
  server_.serve(path, size);
  server_.script(path, {});
}

void TransferHarness::servePage(const std::string& path, int status, const std::string& body) {
  server_.script(path, {}, Fault::page(status, {}, body));
}

void TransferHarness::serveHeld(const std::string& path, uint64_t size, uint64_t at) {
  server_.serve(path, size);
  server_.script(path, {Fault::hold(static_cast<int64_t>(at))}, Fault::hold(0));
}

void TransferHarness::release(const std::string& path) {
  server_.release(path);
}

void TransferHarness::serveBroken(const std::string& path, uint64_t size, uint64_t at) {
  Fault silent;
  silent.closeBeforeHead = true;
  server_.serve(path, size);
  server_.script(path, {Fault::reset(static_cast<int64_t>(at))}, silent);
}

int64_t TransferHarness::storedBytes() const {
  int64_t bytes = 0;
  for (const std::string& file : partialFiles(directory_.path())) {
    std::error_code gone;
    const auto size = std::filesystem::file_size(file, gone);
    if (!gone) bytes += static_cast<int64_t>(size);
  }
  return bytes;
}

uint64_t TransferHarness::bytesTransferredAgain(const std::string& path) const {
  return server_.bytesSentAgain(path);
}

ServiceHarness::ServiceHarness() {
  configuration().useService = true;
}

ServiceHarness::~ServiceHarness() {
  using namespace platform::service;
  int error = 0;
  const platform::FileDescriptor fd = connectTo(socketPath(), &error);
  if (!fd) return;  // none was started, or it is gone
  // It leaves for a newer library only.
  const auto answer = greet(fd.get(), Hello::Kind::Quit, kProtocolVersion + 1, 10000);
  EXPECT_TRUE(answer && answer->kind == Hello::Kind::Leaving);
  // Also its last words, which a sanitizer says at its exit.
  EXPECT_TRUE(!answer || waitForExit(static_cast<pid_t>(answer->process), 30))
      << "it did not leave";
}

Application::Application(ContractHarness& harness) : harness_(harness) {}

Application::~Application() {
  close();
  if (recorder) {
    EXPECT_EQ(recorder->violations(), "");
  }
}

platform::URLSession::Tasks Application::launch(
    const std::function<void(SessionRecorder&)>& prepare) {
  if (recorder) {
    EXPECT_EQ(recorder->violations(), "");
  }
  recorder =
      std::make_shared<SessionRecorder>(directory_.path("launch" + std::to_string(++launches_)));
  if (prepare) prepare(*recorder);
  session = harness_.open(recorder);
  struct Answer {
    platform::URLSession::Tasks tasks;
    std::map<uint64_t, std::string> offered;
    bool given = false;
  };
  const auto answer = std::make_shared<Answer>();
  session->getTasksWithCompletionHandler(
      [answer, seen = recorder](const platform::URLSession::Tasks& tasks) {
        EXPECT_EQ(seen->log(), "")
            << "an event came before the first request for the tasks was answered";
        *answer = {tasks, {}, true};
        for (const auto& task : tasks)
          answer->offered[task->taskIdentifier()] =
              "state " + std::to_string(static_cast<int>(task->state())) + ", " +
              task->taskDescription().value_or("no description");
      });
  EXPECT_TRUE(answer->given) << "the first request for the tasks was not answered inside the call";
  offered = answer->offered;
  return answer->tasks;
}

void Application::close() {
  session = nullptr;
}

platform::URLRequestPtr Application::request(const std::string& path,
                                             const HeaderFields& headers) const {
  auto request =
      platform::URLRequest::requestWithURL(platform::URL::URLWithString(harness_.url(path)));
  for (const auto& [name, value] : headers)
    request->setValueForHTTPHeaderField(value, name);
  return request;
}

Application::TaskPtr Application::make(const std::string& path, const HeaderFields& headers) {
  return session->downloadTaskWithRequest(request(path, headers));
}

Application::TaskPtr Application::start(const std::string& path, const HeaderFields& headers) {
  const TaskPtr task = make(path, headers);
  task->resume();
  return task;
}

Application::TaskPtr Application::launchAndReceive(const std::string& path, uint64_t size,
                                                   uint64_t at, const HeaderFields& headers) {
  harness_.serveHeld(path, size, at);
  launch();
  const auto task = start(path, headers);
  EXPECT_TRUE(recorder->waitForBytes(task->taskIdentifier(), static_cast<int64_t>(at)));
  return task;
}

Application::Events Application::completed(uint64_t task) {
  EXPECT_TRUE(recorder->waitForCompletion(task)) << "no completion of task " << task << "\n"
                                                 << recorder->log();
  return recorder->of(task);
}

}  // namespace qntest
