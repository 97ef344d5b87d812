#pragma once

#include <functional>
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
  platform::JSON status() const;           // of url(); fails the test when there is none
  std::string state() const;               // the member of it
  pid_t holder() const;                    // 0 when no program works on the download
  pid_t service() const;                   // 0 when none runs
  static void killAndWait(pid_t process);  // SIGKILL; nothing for 0
  std::string socketDirectory() const { return program_.state() + "/run"; }

  std::string url() const { return url_; }
  void setURL(std::string url) { url_ = std::move(url); }

  FaultServer server_;
  ProgramRunner program_;

 private:
  std::string url_;
};

}  // namespace qntest
