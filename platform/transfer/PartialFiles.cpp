#include "platform/transfer/PartialFiles.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "platform/Exception.h"
#include "platform/Mutex.h"
#include "platform/PrivateDirectory.h"

namespace platform {
namespace {

constexpr int kNewFile = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;

// A test may put another hook in its place while transfers run.
struct InstalledHook {
  Mutex mutex;
  std::shared_ptr<const PartialFiles::Hook> hook GUARDED_BY(mutex);
};

std::atomic<bool> hasHook{false};
InstalledHook& installed() {
  static auto* const instance = new InstalledHook;  // outlives every thread
  return *instance;
}

int fault(const char* operation) {
  if (!hasHook.load(std::memory_order_acquire)) return 0;
  std::shared_ptr<const PartialFiles::Hook> hook;
  {
    MutexLock lock(installed().mutex);
    hook = installed().hook;
  }
  return hook ? (*hook)(operation) : 0;
}

std::optional<PartialName> parseName(std::string_view text) {
  PartialName name;
  const char* const end = text.data() + text.size();
  const auto owner = std::from_chars(text.data(), end, name.owner);
  if (owner.ec != std::errc() || owner.ptr == end || *owner.ptr != '.') return std::nullopt;
  const auto generation = std::from_chars(owner.ptr + 1, end, name.generation);
  if (generation.ec != std::errc() || generation.ptr != end) return std::nullopt;
  return name;
}

// "<owner>.<generation>"
class NameText {
 public:
  explicit NameText(const PartialName& name) {
    char* const end = bytes_.data() + bytes_.size() - 1;
    char* at = std::to_chars(bytes_.data(), end, name.owner).ptr;
    *at++ = '.';
    at = std::to_chars(at, end, name.generation).ptr;
    *at = '\0';
    size_ = static_cast<size_t>(at - bytes_.data());
  }
  const char* c_str() const { return bytes_.data(); }
  size_t size() const { return size_; }

 private:
  std::array<char, 44> bytes_;  // two numbers of 20 digits
  size_t size_ = 0;
};

// Says to whoever would remove the directory that it is in use. Nothing depends on having it: the
// store's lock keeps others from writing here.
void claim(int directory) {
  static_cast<void>(::flock(directory, LOCK_EX | LOCK_NB));
}

}  // namespace

PartialFiles::PartialFiles(std::string directory) : directory_(std::move(directory)) {
  ErrorPtr error;
  self_ = openPrivateDirectory(directory_, PrivateDirectoryMode::Tightened, error);
  if (error) throw Exception("NSURLSessionException", error->localizedDescription());
  claim(self_.get());
}

// Other threads may be using the descriptor: it is replaced in one step.
int PartialFiles::makeAgain() const {
  ErrorPtr error;
  const auto made = openPrivateDirectory(directory_, PrivateDirectoryMode::Tightened, error);
  if (error) return static_cast<int>(error->code());
  claim(made.get());
  return ::dup3(made.get(), self_.get(), O_CLOEXEC) < 0 ? errno : 0;
}

std::string PartialFiles::path(const PartialName& name) const {
  const NameText text(name);
  std::string path;
  path.reserve(directory_.size() + 1 + text.size());
  return path.append(directory_).append("/").append(text.c_str(), text.size());
}

int PartialFiles::create(const PartialName& name, FileDescriptor& fd) const {
  if (const int error = fault("create")) return error;
  const NameText text(name);
  fd.reset(::openat(self_.get(), text.c_str(), kNewFile, 0600));
  if (fd) return 0;
  int error = errno;
  if (error == EEXIST) {
    // It may be more than a name of one file of ours: the name goes, not its bytes.
    error = ::unlinkat(self_.get(), text.c_str(), 0) == 0 ? 0 : errno;
  } else if (error == ENOENT) {
    error = makeAgain();
  }
  if (error != 0) return error;
  fd.reset(::openat(self_.get(), text.c_str(), kNewFile, 0600));
  return fd ? 0 : errno;
}

int PartialFiles::openForAppend(const PartialName& name, FileDescriptor& fd) const {
  fd.reset(::openat(self_.get(), NameText(name).c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
  return fd ? 0 : errno;
}

int PartialFiles::look(const PartialName& name, int64_t& size) const {
  size = -1;
  if (const int error = fault("stat")) return error;
  struct stat status {};
  const NameText text(name);
  if (::fstatat(self_.get(), text.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? 0 : errno;
  }
  if (S_ISREG(status.st_mode)) size = status.st_size;
  return 0;
}

int64_t PartialFiles::size(const PartialName& name) const {
  int64_t size = -1;
  static_cast<void>(look(name, size));
  return size;
}

int PartialFiles::truncate(const PartialName& name, int64_t length) const {
  if (const int error = fault("truncate")) return error;
  FileDescriptor fd;
  if (const int error = openForAppend(name, fd)) return error;
  return ::ftruncate(fd.get(), length) == 0 ? 0 : errno;
}

void PartialFiles::remove(const PartialName& name) const {
  if (fault("remove") == 0) ::unlinkat(self_.get(), NameText(name).c_str(), 0);
}

size_t PartialFiles::removeAllBut(const std::set<PartialName>& kept) const {
  const int list = ::openat(self_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(list < 0 ? nullptr : ::fdopendir(list),
                                                    &::closedir);
  if (!entries) return 0;
  std::vector<PartialName> superfluous;
  while (const auto* entry = ::readdir(entries.get())) {
    const auto name = parseName(entry->d_name);
    const bool isOurs = name && std::strcmp(NameText(*name).c_str(), entry->d_name) == 0;
    if (isOurs && !kept.contains(*name)) superfluous.push_back(*name);
  }
  size_t removed = 0;
  for (const PartialName& name : superfluous) {
    if (fault("remove") != 0) continue;
    if (::unlinkat(self_.get(), NameText(name).c_str(), 0) == 0) ++removed;
  }
  return removed;
}

int64_t PartialFiles::freeBytes() const {
  struct statvfs status {};
  if (::fstatvfs(self_.get(), &status) != 0) return -1;
  return static_cast<int64_t>(status.f_bavail) * static_cast<int64_t>(status.f_frsize);
}

int PartialFiles::write(int fd, const char* bytes, size_t count, int64_t offset, size_t& written) {
  written = 0;
  if (const int error = fault("write")) return error;
  while (written < count) {
    const auto done =
        ::pwrite(fd, bytes + written, count - written, offset + static_cast<int64_t>(written));
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return errno;
    if (done == 0) return EIO;
    written += static_cast<size_t>(done);
  }
  return 0;
}

int PartialFiles::flush(int fd) {
  if (const int error = fault("flush")) return error;
  return ::fdatasync(fd) == 0 ? 0 : errno;
}

void PartialFiles::setHook(Hook next) {
  const bool isThere = static_cast<bool>(next);
  {
    MutexLock lock(installed().mutex);
    installed().hook = isThere ? std::make_shared<const Hook>(std::move(next)) : nullptr;
  }
  hasHook.store(isThere, std::memory_order_release);
}

}  // namespace platform
