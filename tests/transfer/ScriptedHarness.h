#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tests/support/ScriptedSession.h"
#include "tests/transfer/ContractHarness.h"

namespace qntest {

// The scripted session with a network and a delegate queue that run by themselves, so that it can
// be held to the same contract as the real one: one thread plays what a server would send, another
// delivers the events.
class ScriptedHarness final : public ContractHarness {
 public:
  ScriptedHarness();
  ~ScriptedHarness() override;

  std::shared_ptr<platform::URLSession> open(
      std::weak_ptr<platform::URLSessionDelegate> delegate) override;
  std::string url(const std::string& path) const override;
  void serve(const std::string& path, uint64_t size) override;
  void servePage(const std::string& path, int status, const std::string& body) override;
  void serveHeld(const std::string& path, uint64_t size, uint64_t at) override;
  void release(const std::string& path) override;
  void serveBroken(const std::string& path, uint64_t size, uint64_t at) override;
  // Its files and its traffic are the test's own: there is nothing to measure.
  int64_t storedBytes() const override { return 0; }
  uint64_t bytesTransferredAgain(const std::string&) const override { return 0; }

 private:
  struct Answer {
    int status = 200;
    std::string body;
    uint64_t stopAt = UINT64_MAX;
    bool breaks = false;  // at stopAt, else it is held there
  };
  using Task = ScriptedSession::Task;

  void playNetwork();
  void playQueue();
  void step(ScriptedSession& session, const Task& task);
  void begin(ScriptedSession& session, const Task& task, const Answer& answer);
  void set(const std::string& path, const Answer& answer);

  ScriptedSessions sessions_;
  std::mutex mutex_;
  // Guarded by the mutex, which is held by whoever has the session, except inside a delegate's
  // call.
  std::map<std::string, Answer> answers_;
  std::map<uint64_t, bool> answered_;  // tasks of this launch: sent up to the stop
  std::atomic<bool> stop_ = false;
  std::atomic<bool> delivering_ = false;
  std::thread network_, queue_;
};

}  // namespace qntest
