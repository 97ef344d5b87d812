#include "engine/QNResourcePath.h"

#include <algorithm>
#include <array>
#include <climits>
#include <clocale>
#include <cwchar>
#include <cwctype>

#include "engine/QNDownloadRecord.h"
#include "engine/QNHash.h"
#include "engine/QNMovieDownloadProperties.h"
#include "platform/FileManager.h"

namespace {

constexpr size_t kLongestName = 255;  // NAME_MAX of the usual file systems, in bytes
constexpr size_t kKeptOfLongName = 200;
constexpr const char* kManifestName = "manifest.mpd";

// Calls `visit` with each component between slashes, empty ones too.
template <class Visit>
void forEachComponent(std::string_view path, Visit visit) {
  for (;;) {
    const size_t slash = path.find('/');
    visit(path.substr(0, slash));
    if (slash == std::string_view::npos) return;
    path.remove_prefix(slash + 1);
  }
}

bool goesNowhere(std::string_view component) {
  return component.empty() || component == ".";
}

void appendWithoutNul(std::string& path, std::string_view component) {
  for (size_t nul = 0; (nul = component.find('\0')) != std::string_view::npos;) {
    path.append(component.substr(0, nul)).append("%00");
    component.remove_prefix(nul + 1);
  }
  path += component;
}

bool isInsideCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

void appendSafeComponent(std::string& path, std::string_view component) {
  const size_t start = path.size();
  if (platform::FileManager::isTemporaryName(component)) {
    path += "%2E";
    component.remove_prefix(1);
  }
  appendWithoutNul(path, component);
  if (path.size() - start <= kLongestName) return;
  size_t kept = start + kKeptOfLongName;
  // A character has at most four bytes; what is none may be cut anywhere.
  for (int i = 0; i < 3 && isInsideCharacter(path[kept]); ++i)
    --kept;
  if (isInsideCharacter(path[kept])) kept = start + kKeptOfLongName;
  path.resize(kept);
  path += "~" + QNHexDigits(QNHash64(component));
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Whether that place is a file of ours, or one that is set aside beside it.
bool isOwnName(std::string_view place, std::string_view own) {
  if (place.size() < own.size()) return false;
  const std::string_view rest = place.substr(own.size());
  return (rest.empty() || rest == QNDamagedSuffix) &&
         std::equal(own.begin(), own.end(), place.begin(),
                    [](char a, char b) { return lower(a) == lower(b); });
}

}  // namespace

bool QNIsOrdinaryPath(std::string_view reference) {
  size_t start = 0;
  for (size_t i = 0; i <= reference.size(); ++i) {
    if (i < reference.size() && reference[i] == '\0') return false;
    if (i < reference.size() && reference[i] != '/') continue;
    const std::string_view component = reference.substr(start, i - start);
    if (goesNowhere(component) || component == ".." || component.size() > kLongestName ||
        platform::FileManager::isTemporaryName(component))
      return false;
    start = i + 1;
  }
  return true;
}

std::string QNRelativeResourcePath(const std::string& reference) {
  if (QNIsOrdinaryPath(reference)) return reference;
  std::string path;
  path.reserve(reference.size());
  size_t depth = 0;
  bool first = true;
  forEachComponent(reference, [&](std::string_view component) {
    if (!first) path += '/';
    first = false;
    if (component == "..") {
      path += depth == 0 ? "%2E%2E" : "..";
      if (depth > 0) --depth;
      return;
    }
    if (!goesNowhere(component)) ++depth;
    appendSafeComponent(path, component);
  });
  return path;
}

std::string QNNormalisedPath(std::string_view relativePath) {
  if (QNIsOrdinaryPath(relativePath)) return std::string(relativePath);
  std::string path;
  path.reserve(relativePath.size());
  forEachComponent(relativePath, [&](std::string_view component) {
    if (goesNowhere(component)) return;
    if (component == "..") {
      const size_t slash = path.rfind('/');
      path.resize(slash == std::string::npos ? 0 : slash);
      return;
    }
    if (!path.empty()) path += '/';
    path += component;
  });
  return path;
}

std::optional<std::string> QNRefusalOfPlace(std::string_view relativePath,
                                            std::string_view manifestName, bool foldsCase) {
  std::string normalised;
  std::string_view place = relativePath;
  if (!QNIsOrdinaryPath(relativePath)) place = normalised = QNNormalisedPath(relativePath);
  if (place.empty()) return "its place would be the download directory itself";
  std::string_view last = relativePath;
  if (const size_t slash = last.rfind('/'); slash != std::string_view::npos)
    last.remove_prefix(slash + 1);
  if (goesNowhere(last) || last == "..") return "its place would be a directory";
  const auto isManifest = [&](std::string_view name) {
    return foldsCase ? QNFoldedCase(place) == QNFoldedCase(name) : place == name;
  };
  if (isManifest(kManifestName) || isManifest(manifestName))
    return "its place would be that of the stored manifest";
  if (isOwnName(place, QNMoviePropertiesFileName))
    return "its place would be that of the properties file";
  if (isOwnName(place, QNDownloadRecordFileName))
    return "its place would be that of the record of stored files";
  return std::nullopt;
}

std::string QNFoldedCase(std::string_view text) {
  static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const locale_t before = utf8 ? ::uselocale(utf8) : nullptr;
  std::string folded;
  folded.reserve(text.size());
  std::mbstate_t state{};
  while (!text.empty()) {
    wchar_t wide = 0;
    const size_t length = std::mbrtowc(&wide, text.data(), text.size(), &state);
    const bool isCharacter = length != 0 && length <= text.size();
    if (isCharacter) {
      std::array<char, MB_LEN_MAX> bytes{};
      std::mbstate_t none{};
      const size_t count =
          std::wcrtomb(bytes.data(), static_cast<wchar_t>(std::towlower(wide)), &none);
      if (count <= bytes.size()) folded.append(bytes.data(), count);
    } else {
      folded += text.front();
      state = {};
    }
    text.remove_prefix(isCharacter ? length : 1);
  }
  if (before) ::uselocale(before);
  return folded;
}
