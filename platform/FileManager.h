#pragma once

#include <compare>
#include <cstddef>
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

// The file system. Paths are bytes, joined with "/"; nothing but `canonicalPath` resolves or
// normalises one. Calls that can fail return a null error on success, else one of
// NSPOSIXErrorDomain with the path. Thread-safe; tests replace the default manager by a forwarding
// wrapper that overrides single calls.
class QN_EXPORT FileManager {
 public:
  struct Entry {
    std::string name;
    bool isRegular = false;
    bool isDirectory = false;
  };
  // Which file or directory this is, whatever path leads to it.
  struct Identity {
    uint64_t device = 0;
    uint64_t inode = 0;
    auto operator<=>(const Identity&) const = default;
  };
  struct File {
    std::string path;  // relative to the directory that was asked for
    int64_t size = 0;
  };

  static FileManager& defaultManager();
  // Null restores the real one. The caller keeps the replacement alive.
  static void setDefaultManager(FileManager* manager);

  virtual ~FileManager();

  virtual bool fileExistsAtPath(const std::string& path);  // of any kind, links followed
  virtual bool isRegularFile(const std::string& path);     // links followed
  virtual bool isDirectory(const std::string& path);       // links followed
  virtual bool isSymbolicLink(const std::string& path);    // also "link/"
  virtual std::optional<int64_t> sizeOfFile(
      const std::string& path);  // regular files only, links followed
  virtual std::optional<Identity> identityOf(const std::string& path);  // links followed
  // The path from "/" on without links, "." and "..", as far as it exists; what does not is taken
  // as it is written.
  virtual std::string canonicalPath(const std::string& path);
  // Sum of the sizes of the regular files below the directory `path`, links below it not followed;
  // what cannot be read counts 0, so does a `path` that is no directory.
  virtual int64_t folderSize(const std::string& path);
  // The same walk, told file by file.
  virtual std::vector<File> filesBelow(const std::string& path);
  // Entries except "." and "..", in the order of the directory; the kind is that of a link's
  // target. nullopt when it cannot be read.
  virtual std::optional<std::vector<Entry>> contentsOfDirectory(const std::string& path);
  virtual ErrorPtr createDirectoryWithIntermediates(
      const std::string& path);  // an existing directory is no failure
  // Renames; a file that lies on another file system is copied to a temporary name beside the
  // target, flushed and renamed, and only then removed (a directory there is EXDEV). A file at the
  // target is replaced, a directory there, or a link to one, is EISDIR. The target's directory must
  // exist.
  virtual ErrorPtr moveItem(const std::string& from, const std::string& to);
  // Recursive for a directory; a link is removed, never its target. ENOENT when there is nothing.
  // On failure what was not reached stays, and the error names the entry that resisted.
  virtual ErrorPtr removeItem(const std::string& path);
  // The first `maximumBytes` of a regular file, or all when that is negative; null with an error
  // otherwise (EISDIR for a directory, EINVAL for what is neither).
  virtual DataPtr contentsAtPath(const std::string& path, int64_t maximumBytes,
                                 ErrorPtr* error = nullptr);
  // Temporary name in the same directory, write, flush, rename: after a kill or a power loss there
  // is the old content or the new. `mode` as in open(2), before the umask; an existing file's mode
  // is not kept.
  virtual ErrorPtr writeAtomically(const std::string& path, const void* bytes, size_t size,
                                   unsigned mode = 0666);

  // A file that grows at its end and is never changed before it. Calls may come from any thread; a
  // flush does not keep others from appending meanwhile.
  class QN_EXPORT AppendedFile {
   public:
    virtual ~AppendedFile();
    // In one call of the system. After a failure a part of the bytes may be there.
    virtual ErrorPtr append(std::string_view bytes) = 0;
    // Brings everything that was written to the file's file system before the call to the disk,
    // names as well, and reports what failed to get there since this object was made.
    virtual ErrorPtr flushFileSystem() = 0;
    // What it was when it was opened, and what was appended since, also by a call that failed. Not
    // while another thread appends.
    virtual int64_t size() const = 0;
  };
  // Opens it, or makes it with `mode` (as in open(2)); a link is not followed (ELOOP). Room beyond
  // its end is taken ahead where the file system can do that, so that some lines fit on a full
  // disk. Null with an error when it cannot be opened.
  virtual std::unique_ptr<AppendedFile> openForAppending(const std::string& path, unsigned mode,
                                                         ErrorPtr* error);
  virtual ErrorPtr setMode(const std::string& path, unsigned mode);
  // The process's umask, which is read and never changed; 0077 when the system does not say it.
  static unsigned umaskOfProcess();

  // Whether `name` (the last component) is one that this class gives to files on their way. Only a
  // killed process leaves one behind; whoever owns the directory ignores it and may remove it.
  static bool isTemporaryName(std::string_view name);
  // $XDG_DOCUMENTS_DIR (environment, then user-dirs.dirs), else ~/Documents.
  static std::string documentsDirectory();
  static std::string homeDirectory();  // $HOME, else the user database's
  // Textual joining: exactly one "/" between the two; an absolute right side is appended like any
  // other. An empty side gives the other one.
  static std::string pathByAppending(std::string_view path, std::string_view component);
};

}  // namespace platform
