#include "tests/support/ScriptedFileManager.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <utility>

#include <strings.h>

namespace qntest {

using platform::ErrorPtr;
using platform::FileManager;

ScriptedFileManager::ScriptedFileManager(std::shared_ptr<KillSwitch> killSwitch)
    : killSwitch_(std::move(killSwitch)) {
  setDefaultManager(this);
}

ScriptedFileManager::~ScriptedFileManager() {
  setDefaultManager(nullptr);
}

ErrorPtr ScriptedFileManager::refusal(const char* method, const std::string& path) {
  ++calls_;
  if (fault_) {
    if (const int errnum = fault_(method, path))
      return platform::Error::errorWithErrno(errnum, method, path);
  }
  if (killSwitch_ && !killSwitch_->step())
    return platform::Error::errorWithErrno(EIO, method, path);
  return nullptr;
}

std::string ScriptedFileManager::realPath(const std::string& path) {
  if (!foldsCase_) return path;
  std::string real = "/";
  for (size_t start = 1; start < path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    std::string name = path.substr(start, end - start);
    for (const auto& entry :
         FileManager::contentsOfDirectory(real).value_or(std::vector<Entry>())) {
      if (strcasecmp(entry.name.c_str(), name.c_str()) == 0) name = entry.name;
    }
    real = pathByAppending(real, name);
    start = end + 1;
  }
  return real;
}

bool ScriptedFileManager::fileExistsAtPath(const std::string& path) {
  ++calls_;
  return FileManager::fileExistsAtPath(realPath(path));
}

bool ScriptedFileManager::isRegularFile(const std::string& path) {
  ++calls_;
  return FileManager::isRegularFile(realPath(path));
}

bool ScriptedFileManager::isDirectory(const std::string& path) {
  ++calls_;
  return FileManager::isDirectory(path);
}

std::optional<int64_t> ScriptedFileManager::sizeOfFile(const std::string& path) {
  ++calls_;
  return FileManager::sizeOfFile(path);
}

platform::DataPtr ScriptedFileManager::contentsAtPath(const std::string& path, int64_t maximumBytes,
                                                      ErrorPtr* error) {
  ++calls_;
  const int errnum = fault_ ? fault_("contentsAtPath", path) : 0;
  if (!errnum) return FileManager::contentsAtPath(path, maximumBytes, error);
  if (error) *error = platform::Error::errorWithErrno(errnum, "contentsAtPath", path);
  return nullptr;
}

ErrorPtr ScriptedFileManager::createDirectoryWithIntermediates(const std::string& path) {
  // One that is there already changes nothing.
  if (FileManager::isDirectory(path)) return nullptr;
  if (auto error = refusal("createDirectory", path)) return error;
  return FileManager::createDirectoryWithIntermediates(path);
}

ErrorPtr ScriptedFileManager::moveItem(const std::string& from, const std::string& to) {
  if (auto error = refusal("moveItem", to)) return error;
  return FileManager::moveItem(from, to);
}

ErrorPtr ScriptedFileManager::removeItem(const std::string& path) {
  if (auto error = refusal("removeItem", path)) return error;
  return FileManager::removeItem(path);
}

class ScriptedFileManager::Appended : public AppendedFile {
 public:
  Appended(ScriptedFileManager& owner, std::string path, std::unique_ptr<AppendedFile> real)
      : owner_(owner), path_(std::move(path)), real_(std::move(real)) {}

  ErrorPtr append(std::string_view bytes) override {
    if (auto error = owner_.refusal("append", path_)) return error;
    return real_->append(bytes);
  }
  ErrorPtr flushFileSystem() override {
    if (auto error = owner_.refusal("flush", path_)) return error;
    return owner_.fast_ ? nullptr : real_->flushFileSystem();
  }
  int64_t size() const override { return real_->size(); }

 private:
  ScriptedFileManager& owner_;
  const std::string path_;
  const std::unique_ptr<AppendedFile> real_;
};

std::unique_ptr<FileManager::AppendedFile> ScriptedFileManager::openForAppending(
    const std::string& path, unsigned mode, ErrorPtr* error) {
  auto real = FileManager::openForAppending(path, mode, error);
  return real ? std::make_unique<Appended>(*this, path, std::move(real)) : nullptr;
}

ErrorPtr ScriptedFileManager::writeAtomically(const std::string& path, const void* bytes,
                                              size_t size, unsigned mode) {
  if (auto error = refusal("writeAtomically", path)) return error;
  if (!fast_) return FileManager::writeAtomically(path, bytes, size, mode);
  const std::string temporary = path + ".new";
  std::ofstream(temporary).close();
  (void)FileManager::setMode(temporary, mode & ~umaskOfProcess());
  std::ofstream(temporary, std::ios::binary)
      .write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  if (rename(temporary.c_str(), path.c_str()) == 0) return nullptr;
  return platform::Error::errorWithErrno(errno, "writeAtomically", path);
}

}  // namespace qntest
