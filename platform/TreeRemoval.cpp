#include "platform/TreeRemoval.h"

#include <utility>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include "platform/DirectoryReader.h"

namespace platform {
namespace {

constexpr size_t kOpenDirectories = 64;

bool isDirectoryEntry(int parent, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  struct stat info {};
  return fstatat(parent, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
}

int unlinkUnlessGone(int parent, const std::string& name, int flags) {
  return unlinkat(parent, name.c_str(), flags) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace

int TreeRemoval::run() {
  struct stat info {};
  if (lstat(path_.c_str(), &info) != 0) return errno;
  if (!S_ISDIR(info.st_mode)) return unlinkUnlessGone(AT_FDCWD, path_, 0);
  if (const int failed = _removeTop()) return failed;
  return unlinkUnlessGone(AT_FDCWD, path_, AT_REMOVEDIR);
}

int TreeRemoval::_removeTop() {
  DirectoryReader top(openDirectoryAt(AT_FDCWD, path_.c_str(), O_NOFOLLOW));
  if (!top) return errno == ENOENT ? 0 : errno;
  top_ = top.fd();
  int failed = _removeChildren(top, 1);
  while (!failed && !moved_.empty()) {
    const std::string name = std::move(moved_.back());
    moved_.pop_back();
    failed = _removeEntry(top_, name, true, 1);
  }
  return failed;
}

int TreeRemoval::_removeChildren(DirectoryReader& directory, size_t depth) {
  // All names first: removing while reading may skip entries on some file systems.
  std::vector<std::pair<std::string, bool>> entries;
  while (const dirent* const entry = directory.next()) {
    entries.emplace_back(entry->d_name, isDirectoryEntry(directory.fd(), *entry));
  }
  if (errno != 0) return errno;
  for (const auto& [name, isDirectory] : entries) {
    if (const int failed = _removeEntry(directory.fd(), name, isDirectory, depth)) return failed;
  }
  return 0;
}

int TreeRemoval::_removeEntry(int parent, const std::string& name, bool isDirectory, size_t depth) {
  const size_t length = path_.size();
  path_ += "/" + name;
  const int failed =
      isDirectory ? _removeDirectory(parent, name, depth) : unlinkUnlessGone(parent, name, 0);
  if (!failed) path_.resize(length);
  return failed;
}

int TreeRemoval::_removeDirectory(int parent, const std::string& name, size_t depth) {
  if (depth == kOpenDirectories) return _moveToTop(parent, name);
  {
    DirectoryReader directory(openDirectoryAt(parent, name.c_str(), O_NOFOLLOW));
    if (!directory) return errno == ENOENT ? 0 : errno;
    if (const int failed = _removeChildren(directory, depth + 1)) return failed;
  }
  return unlinkUnlessGone(parent, name, AT_REMOVEDIR);
}

int TreeRemoval::_moveToTop(int parent, const std::string& name) {
  for (size_t number = moved_.size();; ++number) {
    const std::string free = ".qn-removed-" + std::to_string(number);
    if (renameat2(parent, name.c_str(), top_, free.c_str(), RENAME_NOREPLACE) == 0) {
      moved_.push_back(free);
      return 0;
    }
    if (errno != EEXIST) return errno == ENOENT ? 0 : errno;
  }
}

}  // namespace platform
