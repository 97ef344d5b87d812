#include "engine/QNDownloadHold.h"

#include <thread>
#include <utility>

#include <unistd.h>

#include "engine/QNDownloadTypes.h"
#include "platform/Exception.h"
#include "platform/FileLock.h"

namespace {

constexpr auto kPause = std::chrono::milliseconds(5);

std::string describe(pid_t holder) {
  if (holder == 0) return "another process";
  if (holder == getpid()) return "another downloader of this process";
  return "process " + std::to_string(holder);
}

}  // namespace

QNDownloadHold::QNDownloadHold(std::unique_ptr<platform::FileLock> lock) : lock_(std::move(lock)) {}

QNDownloadHold::~QNDownloadHold() = default;

QNDownloadHold::Attempt QNDownloadHold::attempt(const std::string& directory) {
  auto tried = platform::FileLock::ofDirectory(directory);
  Attempt attempt;
  if (tried.lock) attempt.hold = std::make_shared<const QNDownloadHold>(std::move(tried.lock));
  if (tried.isHeld) attempt.holder = describe(tried.holder);
  attempt.isOfThisProcess = tried.isHeld && tried.holder == getpid();
  attempt.error = std::move(tried.error);
  return attempt;
}

QNDownloadHold::Attempt QNDownloadHold::attemptUntil(const std::string& directory,
                                                     Clock::time_point deadline) {
  for (;;) {
    Attempt tried = attempt(directory);
    if (tried.holder.empty() || Clock::now() >= deadline) return tried;
    std::this_thread::sleep_for(kPause);
  }
}

bool QNDownloadHold::changesHands(const std::string& holder) const {
  return !lock_->exchangeNote(holder);
}

void QNDownloadHold::refuse(const std::string& directory, const std::string& holder) {
  throw platform::Exception(
      QNMovieDownloaderException, "Download is held by " + holder,
      {{QNDownloadHolderKey, holder}, {platform::NSFilePathErrorKey, directory}});
}

QNDownloadHold::Hold QNDownloadHold::take(const std::string& directory) {
  Attempt tried = attempt(directory);
  if (!tried.holder.empty()) refuse(directory, tried.holder);
  if (tried.error) {
    throw platform::Exception(QNMovieDownloaderException, "Download cannot be held",
                              {{"NSError", std::move(tried.error)}});
  }
  return tried.hold;
}
