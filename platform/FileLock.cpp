#include "platform/FileLock.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr const char* kNote = "user.qn.holder";

// What a forked child has to close. flock belongs to the open file, which the child shares: it
// would hold the lock for as long as it lives. Slots, because the child may only do what a signal
// handler may; a lock beyond them is merely not closed early.
constexpr int kFree = -1;
constexpr int kTaken = -2;
std::array<std::atomic<int>, 1024> heldLocks;

void closeInChild() {
  for (auto& slot : heldLocks) {
    const int fd = slot.exchange(kFree);
    if (fd >= 0) ::close(fd);
  }
}

void watchForks() {
  static const bool done = [] {
    for (auto& slot : heldLocks)
      slot.store(kFree);
    pthread_atfork(nullptr, nullptr, &closeInChild);
    return true;
  }();
  static_cast<void>(done);
}

void remember(int fd) {
  for (auto& slot : heldLocks) {
    int expected = kFree;
    if (!slot.compare_exchange_strong(expected, kTaken)) continue;
    slot.store(fd);
    return;
  }
}

void forget(int fd) {
  for (auto& slot : heldLocks) {
    int expected = fd;
    if (slot.compare_exchange_strong(expected, kFree)) return;
  }
}

// The process that has the flock of this file, 0 when /proc/locks does not say: it lists
//   "4: FLOCK  ADVISORY  WRITE 4711 08:01:1234 0 EOF"
// with device and inode; who waits has "->" behind the number.
pid_t holderOf(const struct stat& info) {
  std::FILE* const locks = std::fopen("/proc/locks", "re");
  if (!locks) return 0;
  pid_t holder = 0;
  std::array<char, 256> line{};
  while (!holder && std::fgets(line.data(), line.size(), locks)) {
    unsigned major = 0, minor = 0;
    unsigned long long inode = 0;
    int pid = 0;
    const int fields = std::sscanf(line.data(), "%*d: FLOCK %*s WRITE %d %x:%x:%llu", &pid, &major,
                                   &minor, &inode);
    if (fields == 4 && inode == info.st_ino && makedev(major, minor) == info.st_dev) holder = pid;
  }
  std::fclose(locks);
  return holder > 0 ? holder : 0;
}

bool knowsNoLocks(int errnum) {
  // EBADF: some network file systems lock only what is open for writing, which no directory is.
  return errnum == EOPNOTSUPP || errnum == ENOSYS || errnum == ENOLCK || errnum == EINVAL ||
         errnum == EBADF;
}

}  // namespace

FileLock::FileLock(FileDescriptor fd) : fd_(std::move(fd)), process_(::getpid()) {
  remember(fd_.get());
}

FileLock::~FileLock() {
  if (process_ != ::getpid()) {
    (void)fd_.release();  // closed with the fork: by now the number may be another file's
    return;
  }
  forget(fd_.get());
  // A child that was forked this instant has the file, too, and may not have closed it yet.
  ::flock(fd_.get(), LOCK_UN);
}

int FileLock::take(FileDescriptor& fd, std::unique_ptr<FileLock>& lock) {
  watchForks();
  while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR) return errno;
  }
  lock.reset(new FileLock(std::move(fd)));
  return 0;
}

bool FileLock::exchangeNote(const std::string& text) const {
  std::array<char, 256> before{};
  const ssize_t size = ::fgetxattr(fd_.get(), kNote, before.data(), before.size());
  if (size >= 0 && std::string_view(before.data(), static_cast<size_t>(size)) == text) return true;
  // One that cannot be replaced must not be taken for the next holder's own.
  if (::fsetxattr(fd_.get(), kNote, text.data(), text.size(), 0) != 0)
    (void)::fremovexattr(fd_.get(), kNote);
  return false;
}

FileLock::Attempt FileLock::ofDirectory(const std::string& path) {
  Attempt attempt;
  for (;;) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd && errno == ENOENT) return attempt;
    struct stat opened {};
    if (!fd || ::fstat(fd.get(), &opened) != 0) {
      attempt.error = Error::errorWithErrno(errno, "Cannot open", path);
      return attempt;
    }
    const int failed = take(fd, attempt.lock);
    if (failed) {
      attempt.isHeld = failed == EWOULDBLOCK;
      if (attempt.isHeld) attempt.holder = holderOf(opened);
      if (!attempt.isHeld && !knowsNoLocks(failed))
        attempt.error = Error::errorWithErrno(failed, "Cannot lock", path);
      return attempt;
    }
    // The last holder may have removed it, and another may stand in its place.
    struct stat named {};
    const bool isNamed = ::stat(path.c_str(), &named) == 0;
    if (isNamed && named.st_dev == opened.st_dev && named.st_ino == opened.st_ino) return attempt;
    attempt.lock.reset();
  }
}

}  // namespace platform
