#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"

// What the host player SDK knows of a downloader plug-in, and the one registry of those that were
// loaded. The registry lives in this library, so that host and plug-ins share it. Class methods are
// thread-safe.
class QN_EXPORT QuillonStreamDownloaderInterface {
 public:
  // Returns a new plug-in. A plain function: it may be called for as long as the process runs.
  using FactoryFunction = std::shared_ptr<QuillonStreamDownloaderInterface> (*)();

  // For the plug-in, when it is loaded. A function that is registered already, or null, is not
  // added.
  static void addFactoryFunction(FactoryFunction function);
  // For the host: the registered functions in the order of their registration.
  static std::vector<FactoryFunction> factoryFunctions();
  // For the host: a new instance of the first registered plug-in with this identifier; null when
  // there is none.
  static std::shared_ptr<QuillonStreamDownloaderInterface> pluginWithId(
      const std::string& pluginId);

  virtual ~QuillonStreamDownloaderInterface();

  virtual std::string getId() const = 0;
  // The identifiers of the qualities that are wholly stored for the download whose local URL is
  // `localURL`, so that the player offers only those; nullopt when no download has it. Reads files:
  // not for a thread that must not wait.
  virtual std::optional<std::vector<std::string>> getDownloadedQualityIds(
      const std::string& localURL) = 0;
};

// `pluginWithId` for a host that loads the library with dlopen and has no link to the class: it
// finds this by name, and calls the plug-in through its virtual functions. Built with the same C++
// library. Throws nothing: what fails is a null plug-in.
extern "C" QN_EXPORT void QuillonStreamDownloaderInterface_pluginWithId(
    const char* pluginId, std::shared_ptr<QuillonStreamDownloaderInterface>* plugin);
