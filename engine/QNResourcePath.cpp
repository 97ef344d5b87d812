#include "engine/QNResourcePath.h"

#include "engine/QNHash.h"
#include "engine/QNMovieDownloadProperties.h"

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

void appendSafeComponent(std::string& path, std::string_view component) {
  const size_t start = path.size();
  appendWithoutNul(path, component);
  if (path.size() - start <= kLongestName) return;
  path.resize(start + kKeptOfLongName);
  path += "~" + QNHexDigits(QNHash64(component));
}

}  // namespace

bool QNIsOrdinaryPath(std::string_view reference) {
  size_t start = 0;
  for (size_t i = 0; i <= reference.size(); ++i) {
    if (i < reference.size() && reference[i] == '\0') return false;
    if (i < reference.size() && reference[i] != '/') continue;
    const std::string_view component = reference.substr(start, i - start);
    if (goesNowhere(component) || component == ".." || component.size() > kLongestName)
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
                                            std::string_view manifestName) {
  std::string normalised;
  std::string_view place = relativePath;
  if (!QNIsOrdinaryPath(relativePath)) place = normalised = QNNormalisedPath(relativePath);
  if (place.empty()) return "its place would be the download directory itself";
  std::string_view last = relativePath;
  if (const size_t slash = last.rfind('/'); slash != std::string_view::npos)
    last.remove_prefix(slash + 1);
  if (goesNowhere(last) || last == "..") return "its place would be a directory";
  if (place == kManifestName || place == manifestName)
    return "its place would be that of the stored manifest";
  if (place == QNMoviePropertiesFileName) return "its place would be that of the properties file";
  return std::nullopt;
}
