#include "tests/support/ScriptedFileManager.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <utility>

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

bool ScriptedFileManager::fileExistsAtPath(const std::string& path) {
  ++calls_;
  return FileManager::fileExistsAtPath(path);
}

bool ScriptedFileManager::isRegularFile(const std::string& path) {
  ++calls_;
  return FileManager::isRegularFile(path);
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

ErrorPtr ScriptedFileManager::writeAtomically(const std::string& path, const void* bytes,
                                              size_t size, unsigned mode) {
  if (auto error = refusal("writeAtomically", path)) return error;
  if (!fast_) return FileManager::writeAtomically(path, bytes, size, mode);
  const std::string temporary = path + ".new";
  std::ofstream(temporary, std::ios::binary)
      .write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  if (rename(temporary.c_str(), path.c_str()) == 0) return nullptr;
  return platform::Error::errorWithErrno(errno, "writeAtomically", path);
}

}  // namespace qntest
