#pragma once

#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/URLSession.h"
#include "tests/support/FaultServer.h"
#include "tests/support/SessionRecorder.h"
#include "tests/support/TempDirectory.h"

namespace qntest {

// What the contract suite needs of a session implementation and of the world around it. Paths begin
// with "/"; bodies are the content of their path (TestContent.h). One harness is one device: its
// store outlives sessions.
class ContractHarness {
 public:
  virtual ~ContractHarness() = default;

  // A session as a new launch of the application opens it; the one before has been dropped.
  virtual std::shared_ptr<platform::URLSession> open(
      std::weak_ptr<platform::URLSessionDelegate> delegate) = 0;

  virtual std::string url(const std::string& path) const = 0;
  // What the server answers from now on.
  virtual void serve(const std::string& path, uint64_t size) = 0;
  virtual void servePage(const std::string& path, int status, const std::string& body) = 0;
  // The body stops at byte `at` until release().
  virtual void serveHeld(const std::string& path, uint64_t size, uint64_t at) = 0;
  virtual void release(const std::string& path) = 0;
  // The connection breaks at byte `at`, and no later attempt gets an answer until serve().
  virtual void serveBroken(const std::string& path, uint64_t size, uint64_t at) = 0;

  // Bytes in partial and finished files that the session keeps.
  virtual int64_t storedBytes() const = 0;
  // Content bytes of a path that were transferred more than once.
  virtual uint64_t bytesTransferredAgain(const std::string& path) const = 0;
};

// The partial and finished files that sessions keep anywhere below a directory.
std::vector<std::string> partialFiles(const std::string& directory);

struct Implementation {
  std::string name;
  std::function<std::unique_ptr<ContractHarness>()> make;
};
std::ostream& operator<<(std::ostream& out, const Implementation& implementation);

// The real session against a FaultServer, in process unless the configuration says otherwise.
class TransferHarness : public ContractHarness {
 public:
  TransferHarness();

  FaultServer& server() { return server_; }
  // What open() uses; tests change it before they launch.
  platform::URLSessionConfiguration& configuration() { return configuration_; }
  const std::string& stateDirectory() const { return configuration_.stateDirectory; }
  const std::string& partialDirectory() const { return configuration_.partialDirectory; }

  std::shared_ptr<platform::URLSession> open(
      std::weak_ptr<platform::URLSessionDelegate> delegate) override;
  std::string url(const std::string& path) const override;
  void serve(const std::string& path, uint64_t size) override;
  void servePage(const std::string& path, int status, const std::string& body) override;
  void serveHeld(const std::string& path, uint64_t size, uint64_t at) override;
  void release(const std::string& path) override;
  void serveBroken(const std::string& path, uint64_t size, uint64_t at) override;
  int64_t storedBytes() const override;
  uint64_t bytesTransferredAgain(const std::string& path) const override;

 private:
  TempDirectory directory_;
  FaultServer server_;
  platform::URLSessionConfiguration configuration_;
};

// The same session through a service process of the test's own.
class ServiceHarness final : public TransferHarness {
 public:
  ServiceHarness();
  ~ServiceHarness() override;  // asks the service to leave and waits until it did

 private:
  TempDirectory runtimeDirectory_;
  ScopedEnvironment runtime_{"XDG_RUNTIME_DIR", runtimeDirectory_.path()};
  ScopedEnvironment program_{"QN_TRANSFERD", QN_TEST_TRANSFERD};
};

// The application's side of a test: one session at a time, opened as the engine opens it.
class Application {
 public:
  using TaskPtr = SessionRecorder::TaskPtr;
  using SessionPtr = SessionRecorder::SessionPtr;
  using Events = SessionRecorder::Events;

  explicit Application(ContractHarness& harness);
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Opens the session, asks for its tasks and expects the answer inside the call and before any
  // event. `prepare` may set the recorder's hooks.
  platform::URLSession::Tasks launch(const std::function<void(SessionRecorder&)>& prepare = {});
  // Drops everything; what the recorder saw stays readable.
  void close();
  platform::URLSession::Tasks relaunch(const std::function<void(SessionRecorder&)>& prepare = {}) {
    close();
    return launch(prepare);
  }

  platform::URLRequestPtr request(const std::string& path, const HeaderFields& headers = {}) const;
  TaskPtr make(const std::string& path, const HeaderFields& headers = {});
  TaskPtr start(const std::string& path, const HeaderFields& headers = {});  // made and resumed
  // Launches with a task whose server stops after the first `at` bytes, which have come.
  TaskPtr launchAndReceive(const std::string& path, uint64_t size, uint64_t at,
                           const HeaderFields& headers = {});
  // The events of a task once it completed; a test failure when it does not.
  Events completed(uint64_t task);
  Events completed(const TaskPtr& task) { return completed(task->taskIdentifier()); }

  SessionPtr session;
  std::shared_ptr<SessionRecorder> recorder;
  // The tasks as they were inside the answer of the last launch.
  std::map<uint64_t, std::string> offered;

 private:
  ContractHarness& harness_;
  TempDirectory directory_;
  int launches_ = 0;
};

}  // namespace qntest
