#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "tests/cli/ProgramRunner.h"
#include "tests/support/FaultServer.h"

namespace qntest {

// The program with a transfer service of the test's own; whatever they leave running is killed.
class ServiceProgramTest : public testing::Test {
 protected:
  ServiceProgramTest();
  ~ServiceProgramTest() override;

  // Polls, since what other processes do is no event here.
  static bool eventually(const std::function<bool()>& condition, double seconds = 30);

  Ended run(std::vector<std::string> arguments) const;  // with the root of this home
  Ended background(std::vector<std::string> arguments = {}) const;
  platform::JSON status() const;  // of url(); fails the test when there is none
  // Members of it; nothing when there is none.
  struct Now {
    std::string state, directory;
    pid_t holder = 0;  // 0 when no program works on the download
  };
  Now now() const;
  std::string state() const { return now().state; }
  pid_t holder() const { return now().holder; }
  pid_t service() const;  // 0 when none runs
  // What lies in the download's directory now is not to be asked for again, ever.
  void noteStored() { noteStored(now().directory); }
  void noteStored(const std::string& directory);
  void expectStoredWasKept() const;
  std::string socketDirectory() const { return program_.state() + "/run"; }

  std::string url() const { return url_; }
  void setURL(std::string url) { url_ = std::move(url); }

  FaultServer server_;
  ProgramRunner program_;

 private:
  std::string url_;
  std::map<std::string, size_t> stored_;  // path on the server, requests at the time
};

}  // namespace qntest
