#include "tests/support/Processes.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "tests/support/TempDirectory.h"

namespace qntest {
namespace {

platform::FileDescriptor watch(pid_t process) {
  if (process <= 0) return {};
  return platform::FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

bool waitFor(const platform::FileDescriptor& fd, double seconds) {
  pollfd waiting{fd.get(), POLLIN, 0};
  return !fd || ::poll(&waiting, 1, static_cast<int>(seconds * 1000)) > 0;
}

struct Child {
  pid_t process = 0;
  bool dead = false;
};

std::vector<Child> childrenOfThisProcess() {
  std::vector<Child> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = readFile(entry.path() / "stat").value_or("");
    char state = 0;
    int parent = 0;
    const size_t end = stat.rfind(')');  // of the name, which may hold anything
    if (end == std::string::npos) continue;
    if (std::sscanf(stat.c_str() + end + 1, " %c %d", &state, &parent) != 2) continue;
    if (parent == ::getpid()) children.push_back({std::stoi(name), state == 'Z'});
  }
  return children;
}

}  // namespace

Orphanage::Orphanage() {
  for (const Child& child : childrenOfThisProcess())
    before_.insert(child.process);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

Orphanage::~Orphanage() {
  killEverybody();
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

std::vector<pid_t> Orphanage::children(pid_t spared) const {
  std::vector<pid_t> alive;
  for (const Child& child : childrenOfThisProcess()) {
    if (before_.contains(child.process) || child.process == spared) continue;
    if (child.dead) {
      ::waitpid(child.process, nullptr, WNOHANG);
    } else {
      alive.push_back(child.process);
    }
  }
  return alive;
}

void Orphanage::killEverybody(pid_t spared) const {
  // One look may miss a process that is born while its parent dies.
  for (int nobody = 0; nobody < 2;) {
    const auto alive = children(spared);
    nobody = alive.empty() ? nobody + 1 : 0;
    for (const pid_t process : alive)
      killAndWait(process);
  }
}

bool waitForExit(pid_t process, double seconds) {
  return waitFor(watch(process), seconds);
}

void killAndWait(pid_t process) {
  const auto fd = watch(process);
  if (!fd) return;
  ::syscall(SYS_pidfd_send_signal, fd.get(), SIGKILL, nullptr, 0);
  static_cast<void>(waitFor(fd, 30));
}

}  // namespace qntest
