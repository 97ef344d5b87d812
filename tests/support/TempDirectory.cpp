#include "tests/support/TempDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace qntest {
namespace {

void setEnvironment(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
}

}  // namespace

TempDirectory::TempDirectory() {
  const char* const base = std::getenv("TMPDIR");
  path_ = std::string(base && *base ? base : "/tmp") + "/qn-test-XXXXXX";
  if (!mkdtemp(path_.data())) throw std::runtime_error("no temporary directory at " + path_);
}

TempDirectory::~TempDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDirectory::path(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

std::string TempDirectory::write(std::string_view name, std::string_view content) const {
  const std::string file = path(name);
  std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + file);
  return file;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

ScopedEnvironment::ScopedEnvironment(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
  if (const char* const before = std::getenv(name_.c_str())) before_ = before;
  setEnvironment(name_, value);
}

ScopedEnvironment::~ScopedEnvironment() {
  setEnvironment(name_, before_);
}

}  // namespace qntest
