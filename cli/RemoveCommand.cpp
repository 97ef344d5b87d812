#include "cli/RemoveCommand.h"

#include <cstdio>

#include <unistd.h>

#include "cli/Console.h"
#include "cli/Failure.h"
#include "cli/Place.h"
#include "cli/Record.h"
#include "engine/QNDownloadHold.h"
#include "engine/QNMovieDownloadSet.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"

namespace cli {
namespace {

// Moved first to where the engine finishes removals, so that a kill leaves no half that looks like
// a download.
void removeDirectory(const Place& place) {
  auto& files = platform::FileManager::defaultManager();
  const std::string parent = platform::FileManager::pathByAppending(place.root, ".qn-removed");
  const std::string doomed = platform::FileManager::pathByAppending(
      parent, place.downloadId + "." + std::to_string(::getpid()));
  auto error = files.createDirectoryWithIntermediates(parent);
  if (!error) error = files.moveItem(place.directory, doomed);
  if (!error) error = files.removeItem(doomed);
  if (error) throw Failure(ExitCannotWrite, error->localizedDescription());
  ::rmdir(parent.c_str());  // unless another removal is still there
}

}  // namespace

int runRemove(const Options& options) {
  const auto none = [&] {
    return Failure(ExitUnreachable,
                   "There is no download " + options.target + " in " + options.root);
  };
  if (!platform::FileManager::defaultManager().isDirectory(options.root)) throw none();
  const Place place = isDownloadId(options.target)
                          ? Place::forDownloadId(options.root, options.target)
                          : Place::forURL(options.root, options.target);
  if (!place.exists()) throw none();
  {
    const auto downloader = place.openDownloader();
    const std::string url = place.storedURL();
    try {
      if (const auto set = url.empty() ? nullptr : downloader->activateDownloadSetForURL(url))
        downloader->remove(set);
      // A manifest that is no longer usable makes no set.
      const auto hold = QNDownloadHold::take(place.directory);
      if (place.exists()) removeDirectory(place);
    } catch (const platform::Exception& exception) {
      if (auto held = failureOfHeld(exception)) throw std::move(*held);
      throw Failure(ExitCannotWrite, exception.reason());
    }
  }
  Record::remove(place.recordPath);
  platform::FileManager::defaultManager().removeItem(place.storeDirectory);
  Console::shared().note("Removed " + place.directory);
  if (options.json) {
    platform::JSON result = platform::JSON::object();
    result.set("id", place.downloadId);
    result.set("removed", true);
    std::puts(result.dump().c_str());
  }
  return ExitComplete;
}

}  // namespace cli
