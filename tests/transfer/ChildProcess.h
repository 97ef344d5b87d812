#pragma once

#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace qntest {

// A program that the test starts, watches and kills; killed and reaped at the end of the scope.
class ChildProcess {
 public:
  // `environment` is added to this process's own.
  ChildProcess(const std::vector<std::string>& arguments,
               const std::map<std::string, std::string>& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // SIGKILL, and waits until it is gone.
  void kill();
  // Waits for its end; false when it still runs at the deadline.
  [[nodiscard]] bool wait(double seconds);
  bool ended() const { return ended_; }
  // Of an ended one: the exit status, or minus the signal.
  int result() const { return result_; }

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;
  bool ended_ = false;
  int result_ = 0;
};

}  // namespace qntest
