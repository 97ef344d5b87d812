#include "platform/host/QuillonStreamDownloaderInterface.h"

#include <algorithm>

#include "platform/Mutex.h"

namespace {

struct Registry {
  platform::Mutex mutex;
  std::vector<QuillonStreamDownloaderInterface::FactoryFunction> functions GUARDED_BY(mutex);
};

Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

}  // namespace

QuillonStreamDownloaderInterface::~QuillonStreamDownloaderInterface() = default;

void QuillonStreamDownloaderInterface::addFactoryFunction(FactoryFunction function) {
  if (!function) return;
  platform::MutexLock lock(registry().mutex);
  auto& functions = registry().functions;
  if (std::find(functions.begin(), functions.end(), function) != functions.end()) return;
  functions.push_back(function);
}

std::vector<QuillonStreamDownloaderInterface::FactoryFunction>
QuillonStreamDownloaderInterface::factoryFunctions() {
  platform::MutexLock lock(registry().mutex);
  return registry().functions;
}

std::shared_ptr<QuillonStreamDownloaderInterface> QuillonStreamDownloaderInterface::pluginWithId(
    const std::string& pluginId) {
  for (const FactoryFunction function : factoryFunctions()) {
    auto plugin = function();
    if (plugin && plugin->getId() == pluginId) return plugin;
  }
  return nullptr;
}

void QuillonStreamDownloaderInterface_pluginWithId(
    const char* pluginId, std::shared_ptr<QuillonStreamDownloaderInterface>* plugin) {
  try {
    *plugin = QuillonStreamDownloaderInterface::pluginWithId(pluginId);
  } catch (...) {
    // A caller without a link to the class may know nothing of exceptions either.
    plugin->reset();
  }
}
