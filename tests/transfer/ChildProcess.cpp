#include "tests/transfer/ChildProcess.h"

#include <csignal>
#include <cstring>
#include <stdexcept>

#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qntest {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::vector<std::string> added;
  for (const auto& [name, value] : environment)
    added.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& variable : added)
    envp.push_back(variable.data());
  for (char** variable = environ; *variable != nullptr; ++variable)
    envp.push_back(*variable);
  envp.push_back(nullptr);
  const int failed = posix_spawnp(&pid_, argv[0], nullptr, nullptr, argv.data(), envp.data());
  if (failed != 0)
    throw std::runtime_error("cannot start " + arguments[0] + ": " + strerror(failed));
  pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
}

ChildProcess::~ChildProcess() {
  kill();
  if (pidfd_ >= 0) ::close(pidfd_);
}

void ChildProcess::kill() {
  if (ended_) return;
  ::kill(pid_, SIGKILL);
  while (!wait(60))
    continue;
}

bool ChildProcess::wait(double seconds) {
  if (ended_) return true;
  pollfd watched{pidfd_, POLLIN, 0};
  if (::poll(&watched, 1, static_cast<int>(seconds * 1000)) <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, 0) != pid_) return false;
  ended_ = true;
  result_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return true;
}

}  // namespace qntest
