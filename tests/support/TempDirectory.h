#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qntest {

// A new directory of the test's own below $TMPDIR (else /tmp), removed with all it holds.
class TempDirectory {
 public:
  TempDirectory();
  ~TempDirectory();
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string path(std::string_view name) const;  // of an entry, which need not exist
  // Writes a file, with the directories on the way to it, and returns its path.
  std::string write(std::string_view name, std::string_view content) const;

 private:
  std::string path_;
};

// The whole file, nullopt when it cannot be read.
std::optional<std::string> readFile(const std::string& path);

// An environment variable with another value (nullopt: unset) until the end of the scope.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::optional<std::string>& value);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::optional<std::string> before_;
};

}  // namespace qntest
