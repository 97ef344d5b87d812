// A media player that offers only what is stored: it loads the downloader as a plug-in and asks
// which qualities of a local manifest may be played offline.
//
//   qn-sample-host LIBRARY MANIFEST-URL
//
// prints one quality identifier a line. Exit code 0: the download is known; 1: it is not; 2:
// anything else.

#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include <dlfcn.h>

#include "platform/host/QuillonStreamDownloaderInterface.h"

namespace {

using Plugin = std::shared_ptr<QuillonStreamDownloaderInterface>;

template <class Function>
Function* entry(void* library, const char* name) {
  auto* const found = reinterpret_cast<Function*>(dlsym(library, name));
  if (!found) std::fprintf(stderr, "%s\n", dlerror());
  return found;
}

// The library is never unloaded: its threads run until the process ends.
Plugin loadPlugin(const char* path) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    std::fprintf(stderr, "%s\n", dlerror());
    return nullptr;
  }
  auto* const initPlugin = entry<void()>(library, "QuillonStreamDownloader_initPlugin");
  auto* const pluginWithId = entry<decltype(QuillonStreamDownloaderInterface_pluginWithId)>(
      library, "QuillonStreamDownloaderInterface_pluginWithId");
  if (!initPlugin || !pluginWithId) return nullptr;
  initPlugin();
  Plugin plugin;
  pluginWithId("QuillonStreamDownloader", &plugin);
  if (!plugin) std::fprintf(stderr, "%s registered no downloader\n", path);
  return plugin;
}

int printQualities(QuillonStreamDownloaderInterface& plugin, const std::string& url) {
  const auto qualities = plugin.getDownloadedQualityIds(url);
  if (!qualities) {
    std::fprintf(stderr, "%s: nothing is stored for %s\n", plugin.getId().c_str(), url.c_str());
    return 1;
  }
  for (const auto& quality : *qualities)
    std::printf("%s\n", quality.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s LIBRARY MANIFEST-URL\n", argv[0]);
    return 2;
  }
  try {
    const Plugin plugin = loadPlugin(argv[1]);
    return plugin ? printQualities(*plugin, argv[2]) : 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
