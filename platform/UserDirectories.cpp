// The user's directories: the static half of FileManager that reads the environment. user-dirs.dirs
// holds shell assignments, one a line: XDG_<NAME>_DIR="$HOME/<path>" or XDG_<NAME>_DIR="/<path>", a
// backslash quoting the next character inside the quotes; "#" starts a comment line.

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "platform/FileManager.h"

namespace platform {
namespace {

constexpr int64_t kMaximumConfigBytes = int64_t{1} << 20;

std::optional<std::string> absolutePathFromEnvironment(const char* name) {
  const char* const value = std::getenv(name);
  if (!value || value[0] != '/') return std::nullopt;  // a relative one is to be ignored
  return std::string(value);
}

std::optional<std::string> homeFromUserDatabase() {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
    return std::nullopt;
  }
  if (!found->pw_dir || found->pw_dir[0] != '/') return std::nullopt;
  return std::string(found->pw_dir);
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  return text;
}

// The text between the quotes that `text` starts with; nullopt when they are not closed.
std::optional<std::string> unquoted(std::string_view text) {
  if (!text.starts_with('"')) return std::nullopt;
  std::string value;
  for (size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '"') return value;
    if (text[i] == '\\' && ++i == text.size()) break;
    value += text[i];
  }
  return std::nullopt;
}

std::optional<std::string> documentsOfLine(std::string_view line) {
  line = trimmed(line);
  constexpr std::string_view key = "XDG_DOCUMENTS_DIR=";
  if (!line.starts_with(key)) return std::nullopt;
  auto value = unquoted(line.substr(key.size()));
  if (!value) return std::nullopt;
  if (value->starts_with('/')) return value;
  constexpr std::string_view home = "$HOME";
  if (*value != home && !value->starts_with("$HOME/")) return std::nullopt;
  return FileManager::pathByAppending(FileManager::homeDirectory(), value->substr(home.size()));
}

std::optional<std::string> documentsFromConfig() {
  const auto config =
      absolutePathFromEnvironment("XDG_CONFIG_HOME")
          .value_or(FileManager::pathByAppending(FileManager::homeDirectory(), ".config"));
  const auto bytes = FileManager::defaultManager().contentsAtPath(
      FileManager::pathByAppending(config, "user-dirs.dirs"), kMaximumConfigBytes);
  if (!bytes) return std::nullopt;
  std::string_view text(reinterpret_cast<const char*>(bytes->data()), bytes->size());
  std::optional<std::string> documents;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    if (auto found = documentsOfLine(text.substr(0, end))) documents = std::move(found);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return documents;
}

}  // namespace

std::string FileManager::documentsDirectory() {
  if (auto path = absolutePathFromEnvironment("XDG_DOCUMENTS_DIR")) return *std::move(path);
  if (auto path = documentsFromConfig()) return *std::move(path);
  return pathByAppending(homeDirectory(), "Documents");
}

std::string FileManager::homeDirectory() {
  if (auto path = absolutePathFromEnvironment("HOME")) return *std::move(path);
  return homeFromUserDatabase().value_or("/");
}

}  // namespace platform
