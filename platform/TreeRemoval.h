#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace platform {

class DirectoryReader;

// Removes a file, a link or a directory with all that is below it. Each directory is entered
// relative to the open one above it and links are never followed, so that nobody can lead the walk
// elsewhere by replacing a directory while it runs. A tree may be deeper than the process may open
// descriptors: what lies too deep is moved up to the top first.
class TreeRemoval {
 public:
  explicit TreeRemoval(std::string path) : path_(std::move(path)) {}

  // 0 or an errno, ENOENT when there is nothing. What disappears while it runs is no failure.
  int run();
  // After a failure the entry that resisted.
  const std::string& path() const { return path_; }

 private:
  int _removeTop();
  int _removeChildren(DirectoryReader& directory, size_t depth);
  int _removeEntry(int parent, const std::string& name, bool isDirectory, size_t depth);
  int _removeDirectory(int parent, const std::string& name, size_t depth);
  int _moveToTop(int parent, const std::string& name);

  std::string path_;
  int top_ = -1;
  std::vector<std::string> moved_;  // names of directories that came up from below
};

}  // namespace platform
