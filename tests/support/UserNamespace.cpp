#include "tests/support/UserNamespace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qntest {
namespace {

constexpr int kPassed = 0;
constexpr int kFailed = 1;
constexpr int kNotAllowed = 77;

bool writeProc(const char* file, const std::string& text) {
  const int fd = open(file, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return written;
}

bool enterNamespace() {
  // Root needs no user namespace, which a process with another thread (a sanitizer's) cannot enter.
  if (geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
      mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
    return true;
  }
  const std::string uid = "0 " + std::to_string(getuid()) + " 1";
  const std::string gid = "0 " + std::to_string(getgid()) + " 1";
  return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeProc("/proc/self/setgroups", "deny") &&
         writeProc("/proc/self/uid_map", uid) && writeProc("/proc/self/gid_map", gid);
}

int runBody(const std::function<void()>& body) {
  try {
    body();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "in the namespace: %s\n", error.what());
    return kFailed;
  }
  return testing::Test::HasFailure() ? kFailed : kPassed;
}

// The calls of the C library change all threads.
void setEffectiveUser(unsigned user) {
  if (syscall(SYS_setresuid, -1, user, -1) != 0) throw std::runtime_error("setresuid");
}

}  // namespace

std::optional<bool> runInUserNamespace(const std::function<void()>& body) {
  std::fflush(nullptr);  // or the child prints it again
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    const int status = enterNamespace() ? runBody(body) : kNotAllowed;
    std::fflush(nullptr);
    _exit(status);  // the parent's objects are not this process's to destroy
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("waitpid");
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotAllowed) return std::nullopt;
  return WIFEXITED(status) && WEXITSTATUS(status) == kPassed;
}

void mountTmpfs(const std::string& path, int64_t bytes) {
  const std::string options = "size=" + std::to_string(bytes);
  if (mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) == 0) return;
  throw std::runtime_error("cannot mount a tmpfs at " + path + ": " + std::strerror(errno));
}

std::vector<std::string> commandOnTmpfs(const std::string& path, int64_t bytes, int64_t taken) {
  for (const std::string command : {"unshare -m", "unshare -Ur -m"}) {
    const std::string probe = command + " mount -t tmpfs none /mnt >/dev/null 2>&1";
    if (std::system(probe.c_str()) != 0) continue;
    std::istringstream words(command);
    std::vector<std::string> line{std::istream_iterator<std::string>(words), {}};
    line.insert(line.end(),
                {"sh", "-c",
                 "mount -t tmpfs -o size=" + std::to_string(bytes) + " none \"$0\" && head -c " +
                     std::to_string(taken) + " /dev/zero > \"$0/ballast\" && exec \"$@\"",
                 path});
    return line;
  }
  return {};
}

bool AnotherUser::isAllowed() {
  return getuid() == 0;
}

AnotherUser::AnotherUser() {
  setEffectiveUser(kNobody);
}

AnotherUser::~AnotherUser() {
  setEffectiveUser(getuid());
}

}  // namespace qntest
