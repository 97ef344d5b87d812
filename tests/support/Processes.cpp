#include "tests/support/Processes.h"

#include <csignal>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"

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

}  // namespace

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
