#pragma once

#include <cerrno>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace platform {

// A descriptor for DirectoryReader, negative with errno; `flags` may add O_NOFOLLOW.
inline int openDirectoryAt(int parent, const char* name, int flags) {
  return openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
}

// The entries of a directory, "." and ".." left out. Owns the descriptor that it is given, also
// when it cannot be read.
class DirectoryReader {
 public:
  explicit DirectoryReader(int fd) : directory_(fd < 0 ? nullptr : fdopendir(fd)) {
    if (fd >= 0 && !directory_) close(fd);
  }
  ~DirectoryReader() {
    if (directory_) closedir(directory_);
  }
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  explicit operator bool() const { return directory_ != nullptr; }
  int fd() const { return dirfd(directory_); }

  // Null at the end, with errno 0, or on failure.
  const dirent* next() {
    for (;;) {
      errno = 0;
      const dirent* const entry = readdir(directory_);
      if (!entry) return nullptr;
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") return entry;
    }
  }

 private:
  DIR* directory_;
};

}  // namespace platform
