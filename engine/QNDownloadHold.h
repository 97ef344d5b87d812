#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/Error.h"
#include "platform/Export.h"

namespace platform {
class FileLock;
}

// The claim of one downloader on a download's directory while it changes what lies there: from a
// start, or from the first task that was found again, until the set is idle, and during a removal.
// Whoever only looks needs none. Two downloaders conflict in one process as well as in two. The
// claim ends with this object, at the latest with the process.
class QN_EXPORT QNDownloadHold {
 public:
  using Hold = std::shared_ptr<const QNDownloadHold>;
  using Clock = std::chrono::steady_clock;

  // What became of a try. All empty: there is nothing to hold, because the directory does not exist
  // or its file system knows no such locks.
  struct Attempt {
    Hold hold;
    std::string holder;            // who else has it, for a person; empty: nobody
    bool isOfThisProcess = false;  // that one
    platform::ErrorPtr error;      // the directory cannot be opened
  };

  static Attempt attempt(const std::string& directory);
  // The same, again and again while somebody else has it, as long as there is time: a process that
  // is killed gives its session up before its downloads. Not to be called with the shared lock.
  static Attempt attemptUntil(const std::string& directory, Clock::time_point deadline);
  // For a start or a removal; may be null like an attempt's. Throws "QNMovieDownloaderException":
  // "Download is held by <holder>" (user info QNDownloadHolderKey, and the directory under
  // "NSFilePath") or "Download cannot be held" (user info "NSError").
  static Hold take(const std::string& directory);
  [[noreturn]] static void refuse(const std::string& directory, const std::string& holder);

  // Notes in the directory that `holder` has it now, a text that is unique among all holders. False
  // only when it was the last one to have it as well: then nobody else has changed anything since.
  [[nodiscard]] bool changesHands(const std::string& holder) const;

  explicit QNDownloadHold(std::unique_ptr<platform::FileLock> lock);
  ~QNDownloadHold();
  QNDownloadHold(const QNDownloadHold&) = delete;
  QNDownloadHold& operator=(const QNDownloadHold&) = delete;

 private:
  const std::unique_ptr<platform::FileLock> lock_;
};
