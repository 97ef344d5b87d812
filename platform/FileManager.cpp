#include "platform/FileManager.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/DirectoryReader.h"
#include "platform/FileDescriptor.h"
#include "platform/TreeRemoval.h"

namespace platform {
namespace {

constexpr std::string_view kTemporaryPrefix = ".qn-";
constexpr std::string_view kTemporarySuffix = ".tmp";
constexpr size_t kCopyBytes = size_t{1} << 20;

std::string withoutTrailingSlashes(const std::string& path) {
  const size_t last = path.find_last_not_of('/');
  if (last == std::string::npos) return path.empty() ? path : "/";
  return path.substr(0, last + 1);
}

std::string parentOf(const std::string& path) {
  const std::string plain = withoutTrailingSlashes(path);
  const size_t slash = plain.rfind('/');
  if (slash == std::string::npos) return ".";
  return withoutTrailingSlashes(plain.substr(0, slash + 1));
}

std::optional<struct stat> statOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return info;
}

// Unique among the processes and threads of this machine; O_EXCL settles the rest. It does not hold
// the target's name, which may fill the file system's limit for names.
std::string temporaryPathBeside(const std::string& path) {
  static std::atomic<uint64_t> counter{0};
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::array<char, 96> name{};
  std::snprintf(name.data(), name.size(), "%.*s%ld-%llx-%llx%.*s",
                static_cast<int>(kTemporaryPrefix.size()), kTemporaryPrefix.data(),
                static_cast<long>(getpid()), static_cast<unsigned long long>(now.tv_nsec),
                static_cast<unsigned long long>(++counter),
                static_cast<int>(kTemporarySuffix.size()), kTemporarySuffix.data());
  return FileManager::pathByAppending(parentOf(path), name.data());
}

// The functions below return 0 or an errno.

int writeAll(int fd, const uint8_t* bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes += written;
    size -= static_cast<size_t>(written);
  }
  return 0;
}

int copyAll(int from, int to) {
  std::vector<uint8_t> buffer(kCopyBytes);
  for (;;) {
    const ssize_t got = read(from, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) return 0;
    if (const int failed = writeAll(to, buffer.data(), static_cast<size_t>(got))) return failed;
  }
}

// A rename is durable once its directory is. File systems that cannot do this say EINVAL.
int syncDirectory(const std::string& path) {
  const FileDescriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory)
    return errno == EACCES ? 0 : errno;  // a directory may be writable without being readable
  if (fsync(directory.get()) != 0 && errno != EINVAL && errno != EROFS) return errno;
  return 0;
}

// A new file that takes `path`'s place when it is complete, and is gone when it is not.
class Replacement {
 public:
  Replacement(const std::string& path, mode_t mode)
      : path_(path),
        temporary_(temporaryPathBeside(path)),
        file_(open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)) {
    if (!file_) openErrno_ = errno;
  }
  ~Replacement() {
    if (!openErrno_ && !done_) unlink(temporary_.c_str());
  }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  int openErrno() const { return openErrno_; }
  int fd() const { return file_.get(); }

  int commit() {
    if (fsync(file_.get()) != 0) return errno;
    if (const int failed = file_.close()) return failed;
    if (rename(temporary_.c_str(), path_.c_str()) != 0) return errno;
    done_ = true;
    return syncDirectory(parentOf(path_));
  }

 private:
  const std::string& path_;
  const std::string temporary_;
  FileDescriptor file_;
  int openErrno_ = 0;
  bool done_ = false;
};

int copyAcrossFileSystems(const std::string& from, const std::string& to) {
  const FileDescriptor source(open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!source) return errno == ELOOP ? EXDEV : errno;
  struct stat info {};
  if (fstat(source.get(), &info) != 0) return errno;
  if (!S_ISREG(info.st_mode)) return EXDEV;
  Replacement target(to, info.st_mode & 0777);
  if (const int failed = target.openErrno()) return failed;
  if (const int failed = copyAll(source.get(), target.fd())) return failed;
  if (const int failed = target.commit()) return failed;
  return unlink(from.c_str()) == 0 ? 0 : errno;
}

// Calls `found` with path and size of every regular file below `root`, links below it not followed.
// One descriptor at a time, however deep the tree is. `path` is relative to `root`, "" or with a
// "/" at its end.
template <class Found>
void walkFiles(const std::string& root, std::string& path, const Found& found) {
  const size_t length = path.size();
  std::vector<std::string> directories;
  const std::string at = FileManager::pathByAppending(root, path);
  const int flags = path.empty() ? 0 : O_NOFOLLOW;
  if (DirectoryReader directory(openDirectoryAt(AT_FDCWD, at.c_str(), flags)); directory) {
    while (const dirent* const entry = directory.next()) {
      struct stat info {};
      if (fstatat(directory.fd(), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
      if (S_ISDIR(info.st_mode)) directories.emplace_back(entry->d_name);
      if (!S_ISREG(info.st_mode)) continue;
      path += entry->d_name;
      found(path, info.st_size);
      path.resize(length);
    }
  }
  for (const auto& name : directories) {
    path += name;
    path += '/';
    walkFiles(root, path, found);
    path.resize(length);
  }
}

FileManager::Entry entryOf(int directory, const dirent& entry) {
  FileManager::Entry result;
  result.name = entry.d_name;
  result.isRegular = entry.d_type == DT_REG;
  result.isDirectory = entry.d_type == DT_DIR;
  if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return result;
  struct stat info {};
  if (fstatat(directory, entry.d_name, &info, 0) != 0) return result;
  result.isRegular = S_ISREG(info.st_mode);
  result.isDirectory = S_ISDIR(info.st_mode);
  return result;
}

int makeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0777) == 0) return 0;
  const int failed = errno;
  const auto info = statOf(path);
  return info && S_ISDIR(info->st_mode) ? 0 : failed;
}

int makeDirectories(const std::string& path) {
  int failed = makeDirectory(path);
  if (failed != ENOENT) return failed;
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    failed = makeDirectory(path.substr(0, slash));
    if (failed) return failed;
  }
  return makeDirectory(path);
}

int readRegularFile(const std::string& path, int64_t maximumBytes, Data& bytes) {
  // Non-blocking, or a pipe without a writer would hold the caller.
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file) return errno;
  struct stat info {};
  if (fstat(file.get(), &info) != 0) return errno;
  if (S_ISDIR(info.st_mode)) return EISDIR;
  if (!S_ISREG(info.st_mode)) return EINVAL;
  const auto limit =
      maximumBytes < 0 ? std::numeric_limits<size_t>::max() : static_cast<size_t>(maximumBytes);
  size_t room =
      static_cast<size_t>(info.st_size) + 1;  // one more, to meet the end with the last read
  size_t size = 0;
  while (size < limit) {
    if (size == room) room *= 2;
    bytes.resize(std::min(room, limit));
    const ssize_t got = read(file.get(), bytes.data() + size, bytes.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    size += static_cast<size_t>(got);
  }
  bytes.resize(size);
  return 0;
}

ErrorPtr errorUnless0(int errnum, const char* what, const std::string& path) {
  return errnum == 0 ? nullptr : Error::errorWithErrno(errnum, what, path);
}

std::atomic<FileManager*> replacement{nullptr};

constexpr int64_t kRoomAhead = 64 << 10;

class RealAppendedFile final : public FileManager::AppendedFile {
 public:
  RealAppendedFile(std::string path, FileDescriptor file, int64_t size)
      : path_(std::move(path)), file_(std::move(file)), size_(size) {}

  ErrorPtr append(std::string_view bytes) override {
    if (size_ >= roomEnd_ - kRoomAhead / 2) takeRoom();
    ssize_t written = 0;
    do {
      written = write(file_.get(), bytes.data(), bytes.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0) return Error::errorWithErrno(errno, "Cannot write", path_);
    size_ += written;
    return static_cast<size_t>(written) == bytes.size()
               ? nullptr
               : Error::errorWithErrno(ENOSPC, "Cannot write", path_);
  }

  ErrorPtr flushFileSystem() override {
    if (syncfs(file_.get()) == 0) return nullptr;
    return Error::errorWithErrno(errno, "Cannot flush the file system of", path_);
  }

  int64_t size() const override { return size_; }

 private:
  // Not every file system can; then the next line may find the disk full.
  void takeRoom() {
    (void)fallocate(file_.get(), FALLOC_FL_KEEP_SIZE, size_, kRoomAhead);
    roomEnd_ = size_ + kRoomAhead;
  }

  const std::string path_;
  const FileDescriptor file_;
  int64_t size_;  // of the appending side, which its owner serialises
  int64_t roomEnd_ = 0;
};

}  // namespace

FileManager& FileManager::defaultManager() {
  static auto* const real =
      new FileManager;  // never destroyed: other threads may still be in it at exit
  FileManager* const replaced = replacement.load();
  return replaced ? *replaced : *real;
}

void FileManager::setDefaultManager(FileManager* manager) {
  replacement.store(manager);
}

FileManager::~FileManager() = default;

FileManager::AppendedFile::~AppendedFile() = default;

bool FileManager::fileExistsAtPath(const std::string& path) {
  return statOf(path).has_value();
}

bool FileManager::isRegularFile(const std::string& path) {
  const auto info = statOf(path);
  return info && S_ISREG(info->st_mode);
}

bool FileManager::isDirectory(const std::string& path) {
  const auto info = statOf(path);
  return info && S_ISDIR(info->st_mode);
}

bool FileManager::isSymbolicLink(const std::string& path) {
  struct stat info {};
  return lstat(withoutTrailingSlashes(path).c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

std::optional<int64_t> FileManager::sizeOfFile(const std::string& path) {
  const auto info = statOf(path);
  if (!info || !S_ISREG(info->st_mode)) return std::nullopt;
  return info->st_size;
}

std::optional<FileManager::Identity> FileManager::identityOf(const std::string& path) {
  const auto info = statOf(path);
  return info ? std::optional(Identity{info->st_dev, info->st_ino}) : std::nullopt;
}

std::string FileManager::canonicalPath(const std::string& path) {
  std::error_code failed;
  const auto absolute = std::filesystem::absolute(path, failed);
  if (failed) return path;
  const auto resolved = std::filesystem::weakly_canonical(absolute, failed);
  return failed ? absolute.lexically_normal().string() : resolved.string();
}

int64_t FileManager::folderSize(const std::string& path) {
  int64_t total = 0;
  std::string walked;
  walkFiles(path, walked, [&](const std::string&, int64_t size) { total += size; });
  return total;
}

std::vector<FileManager::File> FileManager::filesBelow(const std::string& path) {
  std::vector<File> files;
  std::string walked;
  walkFiles(path, walked, [&](const std::string& file, int64_t size) {
    files.push_back({file, size});
  });
  return files;
}

std::optional<std::vector<FileManager::Entry>> FileManager::contentsOfDirectory(
    const std::string& path) {
  DirectoryReader directory(openDirectoryAt(AT_FDCWD, path.c_str(), 0));
  if (!directory) return std::nullopt;
  std::vector<Entry> entries;
  while (const dirent* const entry = directory.next()) {
    entries.push_back(entryOf(directory.fd(), *entry));
  }
  if (errno != 0) return std::nullopt;
  return entries;
}

ErrorPtr FileManager::createDirectoryWithIntermediates(const std::string& path) {
  return errorUnless0(makeDirectories(path), "Cannot create directory", path);
}

ErrorPtr FileManager::moveItem(const std::string& from, const std::string& to) {
  constexpr const char* what = "Cannot move to";
  // Mostly nothing is there; not every file system can be told so.
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
    return nullptr;
  const bool mayBeThere = errno == EEXIST || errno == EINVAL || errno == ENOSYS || errno == EXDEV;
  if (!mayBeThere) return Error::errorWithErrno(errno, what, to);
  // rename(2) would replace an empty directory by a directory, and a link.
  if (isDirectory(to)) return Error::errorWithErrno(EISDIR, what, to);
  if (rename(from.c_str(), to.c_str()) == 0) return nullptr;
  if (errno != EXDEV) return Error::errorWithErrno(errno, what, to);
  return errorUnless0(copyAcrossFileSystems(from, to), what, to);
}

ErrorPtr FileManager::removeItem(const std::string& path) {
  TreeRemoval removal(withoutTrailingSlashes(path));  // "link/" would mean the link's target
  const int failed = removal.run();
  return errorUnless0(failed, "Cannot remove", removal.path());
}

DataPtr FileManager::contentsAtPath(const std::string& path, int64_t maximumBytes,
                                    ErrorPtr* error) {
  auto bytes = std::make_shared<Data>();
  const int failed = readRegularFile(path, maximumBytes, *bytes);
  if (error) *error = errorUnless0(failed, "Cannot read", path);
  return failed ? nullptr : bytes;
}

ErrorPtr FileManager::writeAtomically(const std::string& path, const void* bytes, size_t size,
                                      unsigned mode) {
  constexpr const char* what = "Cannot write";
  Replacement file(path, static_cast<mode_t>(mode));
  int failed = file.openErrno();
  if (!failed) failed = writeAll(file.fd(), static_cast<const uint8_t*>(bytes), size);
  if (!failed) failed = file.commit();
  return errorUnless0(failed, what, path);
}

std::unique_ptr<FileManager::AppendedFile> FileManager::openForAppending(const std::string& path,
                                                                         unsigned mode,
                                                                         ErrorPtr* error) {
  const auto failed = [&](int errnum) {
    if (error) *error = Error::errorWithErrno(errnum, "Cannot open", path);
    return nullptr;
  };
  FileDescriptor file(open(path.c_str(),
                           O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                           static_cast<mode_t>(mode)));
  if (!file) return failed(errno);
  struct stat info {};
  if (fstat(file.get(), &info) != 0) return failed(errno);
  if (!S_ISREG(info.st_mode)) return failed(EINVAL);
  return std::make_unique<RealAppendedFile>(path, std::move(file), info.st_size);
}

ErrorPtr FileManager::setMode(const std::string& path, unsigned mode) {
  const int failed = chmod(path.c_str(), static_cast<mode_t>(mode)) == 0 ? 0 : errno;
  return errorUnless0(failed, "Cannot set the mode of", path);
}

unsigned FileManager::umaskOfProcess() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Umask:"))
      return static_cast<unsigned>(std::strtoul(line.c_str() + 6, nullptr, 8));
  }
  return 0077;
}

bool FileManager::isTemporaryName(std::string_view name) {
  return name.starts_with(kTemporaryPrefix) && name.ends_with(kTemporarySuffix);
}

std::string FileManager::pathByAppending(std::string_view path, std::string_view component) {
  while (component.starts_with('/'))
    component.remove_prefix(1);
  if (component.empty()) return std::string(path);
  if (path.empty()) return std::string(component);
  while (path.ends_with('/'))
    path.remove_suffix(1);
  std::string joined(path);
  joined += '/';
  joined += component;
  return joined;
}

}  // namespace platform
