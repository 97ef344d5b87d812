#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Export.h"

namespace platform {

// The file system. Paths are bytes, joined with "/"; nothing is resolved or normalised. Calls that can fail return a
// null error on success, else one of NSPOSIXErrorDomain with the path. Thread-safe; tests replace the default manager
// by a forwarding wrapper that overrides single calls.
class QN_EXPORT FileManager {
 public:
  struct Entry {
    std::string name;
    bool isRegular = false;
    bool isDirectory = false;
  };

  static FileManager& defaultManager();
  // Null restores the real one. The caller keeps the replacement alive.
  static void setDefaultManager(FileManager* manager);

  virtual ~FileManager();

  virtual bool fileExistsAtPath(const std::string& path);         // of any kind, links followed
  virtual bool isRegularFile(const std::string& path);            // links followed
  virtual bool isDirectory(const std::string& path);
  virtual std::optional<int64_t> sizeOfFile(const std::string& path);  // regular files only
  // Sum of the sizes of the regular files below `path`, links not followed; 0 when there is none.
  virtual int64_t folderSize(const std::string& path);
  // Entries except "." and "..", in the order of the directory; nullopt when it cannot be read.
  virtual std::optional<std::vector<Entry>> contentsOfDirectory(const std::string& path);
  virtual ErrorPtr createDirectoryWithIntermediates(const std::string& path);  // an existing directory is no failure
  // Renames; across file systems copies to a temporary name beside the target, flushes and renames. A file at the
  // target is replaced, a directory there is an error (EISDIR).
  virtual ErrorPtr moveItem(const std::string& from, const std::string& to);
  virtual ErrorPtr removeItem(const std::string& path);  // recursive for a directory, links not followed
  virtual DataPtr contentsAtPath(const std::string& path, int64_t maximumBytes, ErrorPtr* error = nullptr);
  // Temporary name in the same directory, write, flush, rename.
  virtual ErrorPtr writeAtomically(const std::string& path, const void* bytes, size_t size);

  // $XDG_DOCUMENTS_DIR (environment, then user-dirs.dirs), else ~/Documents.
  static std::string documentsDirectory();
  static std::string homeDirectory();
  // Textual joining: exactly one "/" between the two; an absolute right side is appended like any other.
  static std::string pathByAppending(std::string_view path, std::string_view component);
};

}  // namespace platform
