#include "cli/ListCommand.h"

#include <algorithm>
#include <cstdio>

#include "cli/Console.h"
#include "cli/ExitCode.h"
#include "cli/Place.h"
#include "cli/Text.h"
#include "cli/Wanted.h"
#include "engine/QNMovieDownloadProperties.h"
#include "platform/FileManager.h"

namespace cli {
namespace {

struct Stored {
  std::string id;
  std::string url;
  std::string directory;
  StoredExtent extent;
  int64_t bytes = 0;
};

std::vector<Stored> storedBelow(const std::string& root) {
  auto& files = platform::FileManager::defaultManager();
  std::vector<Stored> list;
  for (const auto& entry :
       files.contentsOfDirectory(root).value_or(std::vector<platform::FileManager::Entry>())) {
    if (!isDownloadId(entry.name)) continue;
    Stored stored;
    stored.id = entry.name;
    stored.directory = platform::FileManager::pathByAppending(root, entry.name);
    if (!files.fileExistsAtPath(
            platform::FileManager::pathByAppending(stored.directory, QNMoviePropertiesFileName))) {
      continue;
    }
    const auto properties = QNMovieDownloadProperties::propertiesWithLocalPath(
        stored.directory, QNMoviePropertiesFileName);
    if (!properties) continue;
    stored.url = properties->sourceURL().value_or("");
    stored.extent = storedExtent(*properties);
    stored.bytes = files.folderSize(stored.directory);
    list.push_back(std::move(stored));
  }
  std::sort(list.begin(), list.end(),
            [](const Stored& a, const Stored& b) { return a.url < b.url; });
  return list;
}

void printJSON(const std::vector<Stored>& list, const std::string& root) {
  using platform::JSON;
  JSON downloads = JSON::array();
  for (const Stored& stored : list) {
    JSON entry = JSON::object();
    entry.set("id", stored.id);
    entry.set("url", stored.url);
    entry.set("directory", stored.directory);
    entry.set("complete", stored.extent.isComplete());
    entry.set("wantedQualities", static_cast<uint64_t>(stored.extent.wanted));
    entry.set("storedQualities", static_cast<uint64_t>(stored.extent.stored));
    entry.set("bytes", stored.bytes);
    downloads.append(std::move(entry));
  }
  JSON result = JSON::object();
  result.set("root", root);
  result.set("downloads", std::move(downloads));
  std::puts(result.dump().c_str());
}

}  // namespace

int runList(const Options& options) {
  const auto list = storedBelow(options.root);
  if (options.json) {
    printJSON(list, options.root);
    return ExitComplete;
  }
  if (list.empty()) Console::shared().note("Nothing is stored in " + options.root);
  for (const Stored& stored : list) {
    const std::string state = stored.extent.isComplete()
                                  ? "complete"
                                  : std::to_string(stored.extent.stored) + " of " +
                                        counted(stored.extent.wanted, "quality", "qualities");
    const std::string line = stored.id + "  " + padded(state, 16) + "  " +
                             padded(formatBytes(stored.bytes), 7) + "  " + forTerminal(stored.url) +
                             "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
  }
  return ExitComplete;
}

}  // namespace cli
