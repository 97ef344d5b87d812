// Kills the process at its n-th write. The calls of the C library that change files are replaced in
// this program, also for the shared libraries that it uses (SQLite): each counts, and the one that
// $QN_TEST_KILL_AT_WRITE names does not happen (or half of it, with $QN_TEST_TEAR_WRITE), because
// the process ends there by SIGKILL. Files outside of $QN_TEST_WRITES_BELOW do not count. With
// $QN_TEST_COUNT_WRITES the number so far always stands in that file.

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QN_THREAD_SANITIZER
#endif
#endif

namespace {

std::atomic<long> count{0};

volatile bool started = false;  // the constructors of this program run
[[gnu::constructor]] void start() {
  started = true;
}

struct Settings {
  long killAt = -1;
  bool tear = false;
  std::string below;
  int countFd = -1;
  Settings() {
    if (const char* n = getenv("QN_TEST_KILL_AT_WRITE")) killAt = atol(n);
    tear = getenv("QN_TEST_TEAR_WRITE") != nullptr;
    if (const char* directory = getenv("QN_TEST_WRITES_BELOW")) below = directory;
    if (const char* file = getenv("QN_TEST_COUNT_WRITES"))
      countFd = open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  }
};
const Settings& settings() {
  // Kept for threads that outlive main.
  static const auto& instance = *new Settings;
  return instance;
}

template <class Function>
Function real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

bool isBelow(const char* path) {
  const std::string& below = settings().below;
  return path != nullptr && !below.empty() && strncmp(path, below.c_str(), below.size()) == 0;
}

bool isBelow(int fd) {
  if (settings().below.empty() || fd == settings().countFd) return false;
  char link[64], target[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t size = readlink(link, target, sizeof target - 1);
  if (size <= 0) return false;
  target[size] = '\0';
  return isBelow(target);
}

// True when this operation is the last one.
bool counts() {
  const long n = ++count;
  if (settings().countFd >= 0) {
    using Write = ssize_t (*)(int, const void*, size_t, off_t);
    char text[24];
    const int size = snprintf(text, sizeof text, "%ld\n", n);
    [[maybe_unused]] const auto written =
        real<Write>("pwrite")(settings().countFd, text, static_cast<size_t>(size), 0);
  }
  return n == settings().killAt;
}

[[noreturn]] void die() {
  raise(SIGKILL);
  abort();
}

template <class Whole, class Half>
auto operation(bool below, Whole whole, Half half) {
  if (below && counts()) {
    if (settings().tear) half();
    die();
  }
  return whole();
}
template <class Whole>
auto operation(bool below, Whole whole) {
  return operation(below, whole, whole);  // torn: it happens, and nothing after it
}

}  // namespace

#define REAL(name) real<decltype(&::name)>(#name)

#pragma GCC visibility push(default)
extern "C" {

ssize_t pwrite(int fd, const void* bytes, size_t size, off_t offset) {
  const auto call = REAL(pwrite);
  return operation(
      isBelow(fd), [&] { return call(fd, bytes, size, offset); },
      [&] { return call(fd, bytes, size / 2, offset); });
}
ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t offset) {
  const auto call = REAL(pwrite64);
  return operation(
      isBelow(fd), [&] { return call(fd, bytes, size, offset); },
      [&] { return call(fd, bytes, size / 2, offset); });
}
ssize_t write(int fd, const void* bytes, size_t size) {
  const auto call = REAL(write);
  return operation(
      isBelow(fd), [&] { return call(fd, bytes, size); },
      [&] { return call(fd, bytes, size / 2); });
}
ssize_t writev(int fd, const iovec* pieces, int number) {
  const auto call = REAL(writev);
  return operation(isBelow(fd), [&] { return call(fd, pieces, number); });
}
int ftruncate(int fd, off_t length) {
  const auto call = REAL(ftruncate);
  return operation(isBelow(fd), [&] { return call(fd, length); });
}
int ftruncate64(int fd, off64_t length) {
  const auto call = REAL(ftruncate64);
  return operation(isBelow(fd), [&] { return call(fd, length); });
}
int truncate(const char* path, off_t length) {
  const auto call = REAL(truncate);
  return operation(isBelow(path), [&] { return call(path, length); });
}
int fsync(int fd) {
  const auto call = REAL(fsync);
  return operation(isBelow(fd), [&] { return call(fd); });
}
int fdatasync(int fd) {
  const auto call = REAL(fdatasync);
  return operation(isBelow(fd), [&] { return call(fd); });
}
int rename(const char* from, const char* to) {
  const auto call = REAL(rename);
  return operation(isBelow(from) || isBelow(to), [&] { return call(from, to); });
}
int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
              unsigned flags) {
  const auto call = REAL(renameat2);
  return operation(isBelow(from) || isBelow(to),
                   [&] { return call(fromDirectory, from, toDirectory, to, flags); });
}
int unlink(const char* path) {
  const auto call = REAL(unlink);
  return operation(isBelow(path), [&] { return call(path); });
}
int unlinkat(int directory, const char* path, int flags) {
  const auto call = REAL(unlinkat);
  return operation(isBelow(directory) || isBelow(path),
                   [&] { return call(directory, path, flags); });
}
#ifndef QN_THREAD_SANITIZER  // whose runtime makes the directory of its reports before it is ready
int mkdir(const char* path, mode_t mode) {
  // A sanitizer makes the directory of its reports before anything else of this process works.
  if (!started) return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
  const auto call = REAL(mkdir);
  return operation(isBelow(path), [&] { return call(path, mode); });
}
#endif

}  // extern "C"
#pragma GCC visibility pop
