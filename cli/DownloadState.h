#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "cli/Place.h"
#include "cli/Progress.h"
#include "cli/Record.h"
#include "platform/JSON.h"

class QNMovieDownloader;

namespace cli {

// What can be said of a download: by the process that works on it, else by what lies on disk.
struct DownloadState {
  enum State {
    Starting,     // a process works on it and transfers nothing yet
    Downloading,  // a process works on it
    Paused,
    Transferring,  // by the service alone, which starts the program again when something is there
    Interrupted,   // nobody works on it, although nobody stopped it
    Failed,        // the last run could not store everything
    Cancelled,
    Complete,
  };
  State state = Interrupted;
  std::string id;
  std::string url;
  std::string directory;
  std::optional<pid_t> process;  // of this program, when one works on it
  bool background = false;
  int64_t bytes = 0;
  int64_t expected = -1;  // -1 unknown
  bool estimated = false;
  std::string waiting;  // why nothing moves
  std::string error;    // how the last run ended

  static DownloadState ofHolder(const Place& place, const std::string& url, const Figures& figures);
  // From the record, the download's directory and the session's store.
  static DownloadState ofDisk(const Place& place, const std::optional<Record>& record);
  // Asks the holder; without one, or when it does not answer, from the disk. nullopt when there is
  // no such download.
  static std::optional<DownloadState> of(const Place& place);

  bool isOver() const { return state >= Interrupted || state == Paused; }
  platform::JSON toJSON() const;
  static std::optional<DownloadState> fromJSON(const platform::JSON& json);
  // One line for a person, safe for a terminal.
  std::string line() const;
};

// Until no task of the session is left, or some seconds have passed.
void waitUntilWithoutTasks(QNMovieDownloader& downloader);

}  // namespace cli
