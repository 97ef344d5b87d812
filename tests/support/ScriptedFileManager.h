#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/FileManager.h"
#include "tests/support/KillSwitch.h"

namespace qntest {

// Stands in for the file manager as long as it lives and forwards to the real one, except that a
// test can let single calls fail and the disk die. Changes only are steps of the switch.
class ScriptedFileManager : public platform::FileManager {
 public:
  // Named after the method that changes something, or "contentsAtPath".
  using Fault = std::function<int(const std::string& method, const std::string& path)>;

  explicit ScriptedFileManager(std::shared_ptr<KillSwitch> killSwitch = nullptr);
  ~ScriptedFileManager() override;

  // Asked before each change and before a file is read; an errno other than 0 is how the call
  // fails.
  void setFault(Fault fault) { fault_ = std::move(fault); }
  // Writes without flushing the disk, which no test of logic needs.
  void setFast() { fast_ = true; }
  // Names that differ in the case of their letters are one file, as far as that can be asked.
  void setFoldsCase() { foldsCase_ = true; }
  // How many times the file system was asked anything at all.
  uint64_t calls() const { return calls_; }

  bool fileExistsAtPath(const std::string& path) override;
  bool isRegularFile(const std::string& path) override;
  bool isDirectory(const std::string& path) override;
  std::optional<int64_t> sizeOfFile(const std::string& path) override;
  platform::DataPtr contentsAtPath(const std::string& path, int64_t maximumBytes,
                                   platform::ErrorPtr* error) override;
  platform::ErrorPtr createDirectoryWithIntermediates(const std::string& path) override;
  platform::ErrorPtr moveItem(const std::string& from, const std::string& to) override;
  platform::ErrorPtr removeItem(const std::string& path) override;
  platform::ErrorPtr writeAtomically(const std::string& path, const void* bytes, size_t size,
                                     unsigned mode) override;
  std::unique_ptr<AppendedFile> openForAppending(const std::string& path, unsigned mode,
                                                 platform::ErrorPtr* error) override;

 private:
  class Appended;
  std::string realPath(const std::string& path);
  platform::ErrorPtr refusal(const char* method, const std::string& path);

  std::shared_ptr<KillSwitch> killSwitch_;
  Fault fault_;
  bool fast_ = false;
  bool foldsCase_ = false;
  std::atomic<uint64_t> calls_{0};
};

}  // namespace qntest
