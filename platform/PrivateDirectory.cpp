#include "platform/PrivateDirectory.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileManager.h"

namespace platform {
namespace {

constexpr mode_t kPrivate = 0700;
constexpr mode_t kOthersWrite = 022;

ErrorPtr refusal(int code, const std::string& path, const char* why) {
  return Error::errorWithDomain(
      NSPOSIXErrorDomain, code,
      {{NSLocalizedDescriptionKey, path + " " + why}, {NSFilePathErrorKey, path}});
}

// "link/" would mean the link's target.
std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  return path;
}

ErrorPtr check(int fd, const std::string& path, PrivateDirectoryMode mode) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return Error::errorWithErrno(errno, "Cannot look at", path);
  if (status.st_uid != ::geteuid()) return refusal(EPERM, path, "belongs to another user");
  if ((status.st_mode & 0777) == kPrivate) return nullptr;
  mode_t refused = ~kPrivate & 0777;
  if (mode == PrivateDirectoryMode::Tightened) {
    static_cast<void>(::fchmod(fd, kPrivate));
    if (::fstat(fd, &status) != 0) return Error::errorWithErrno(errno, "Cannot look at", path);
    refused = kOthersWrite;
  }
  if ((status.st_mode & refused) == 0) return nullptr;
  return refusal(EACCES, path, "is open to other users (its mode must be 0700)");
}

}  // namespace

FileDescriptor openPrivateDirectory(const std::string& directory, PrivateDirectoryMode mode,
                                    ErrorPtr& error) {
  const std::string path = withoutTrailingSlashes(directory);
  if (const size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0) {
    error = FileManager::defaultManager().createDirectoryWithIntermediates(path.substr(0, slash));
    if (error) return {};
  }
  if (::mkdir(path.c_str(), kPrivate) != 0 && errno != EEXIST) {
    error = Error::errorWithErrno(errno, "Cannot create directory", path);
    return {};
  }
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) {
    const bool isOther = errno == ENOTDIR || errno == ELOOP;
    error = isOther ? refusal(ENOTDIR, path, "is no directory")
                    : Error::errorWithErrno(errno, "Cannot open", path);
    return {};
  }
  error = check(fd.get(), path, mode);
  return error ? FileDescriptor() : std::move(fd);
}

}  // namespace platform
