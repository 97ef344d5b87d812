#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "platform/FileDescriptor.h"

namespace platform {

// Names one file of a session's directory of partial files. Every response that starts over gets a
// generation of its own, so that the bytes of two responses never meet in one file.
struct PartialName {
  uint64_t owner = 0;  // the task that it was made for
  uint64_t generation = 0;

  auto operator<=>(const PartialName&) const = default;
};

// The directory of partial files of one session (mode 0700, files 0600). It may lie where others
// write, beside downloads: all work is done relative to the directory that was opened, and only
// names of this class's own are touched. It has an exclusive flock meanwhile, for whoever thinks of
// removing it. Calls return 0 or an errno. Thread-safe.
class PartialFiles {
 public:
  // Throws platform::Exception "NSURLSessionException" when the directory cannot be made, or what
  // lies there is not a directory of this user's alone.
  explicit PartialFiles(std::string directory);

  const std::string& directory() const { return directory_; }
  std::string path(const PartialName& name) const;

  // A new, empty file; what lay there is replaced. A directory that vanished is made again.
  int create(const PartialName& name, FileDescriptor& fd) const;
  int openForAppend(const PartialName& name, FileDescriptor& fd) const;
  // -1: there is none. An error means that nobody can say.
  int look(const PartialName& name, int64_t& size) const;
  int64_t size(const PartialName& name) const;  // -1: there is none that could be looked at
  int truncate(const PartialName& name, int64_t length) const;
  void remove(const PartialName& name) const;
  // Removes every file with a name of this class's that is not among `kept`; returns how many there
  // were.
  size_t removeAllBut(const std::set<PartialName>& kept) const;
  // Bytes that may still be written, -1 when that is not known.
  int64_t freeBytes() const;

  // Writes all at `offset`; returns 0 or an errno and how much was written.
  static int write(int fd, const char* bytes, size_t count, int64_t offset, size_t& written);

  // Brings the file to the disk.
  static int flush(int fd);

  // For tests: asked before every operation that changes a file; a result other than 0 is the errno
  // that the operation fails with. Null removes it.
  using Hook = std::function<int(const char* operation)>;
  static void setHook(Hook hook);

 private:
  int makeAgain() const;

  const std::string directory_;
  // Keeps its number when the directory is made again.
  FileDescriptor self_;  // the directory: names in it need no walk from the root
};

}  // namespace platform
