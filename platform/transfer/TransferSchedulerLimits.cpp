// What the scheduler does about the byte rate and the disk: room, and bytes that have to get there.

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/transfer/TransferScheduler.h"

namespace platform {
namespace {

// While the byte rate allows it one more paused transfer goes on after so long.
constexpr int64_t kReleaseIntervalMs = 5;
constexpr int64_t kRoomCheckMs = 2'000;
constexpr int64_t kRoomWanted = 4 << 20;
// Flushes of a task that fail in a row before it does.
constexpr int kMostFailedFlushes = 4;

bool isFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

}  // namespace

// --- Rate ---------------------------------------------------------------------------------------

// Piece by piece: a round may read all that the system has taken in meanwhile.
void TransferScheduler::downloadDidRead(Download& download, int64_t count) {
  limiter_.take(count, now());
  Job* const job = find(download.task());
  if (!job || job->throttled || job->state != State::Active || limiter_.mayRead(now())) return;
  job->throttled = true;
  download.pause();
  throttled_.push_back(job->id);
  nextReleaseMs_ = std::min(nextReleaseMs_, limiter_.nextReadMs(now()));
}

// One after the other, each when what the one before read too much is paid back.
void TransferScheduler::releaseThrottled() {
  if (nextReleaseMs_ > now()) return;
  nextReleaseMs_ = kNeverMs;
  if (!limiter_.mayRead(now())) {
    nextReleaseMs_ = limiter_.nextReadMs(now());
    return;
  }
  while (!throttled_.empty()) {
    Job* const job = find(throttled_.front());
    throttled_.pop_front();
    if (!job || !job->throttled || job->state != State::Active || !job->download) continue;
    job->throttled = false;
    job->activeAtMs = now();
    nextTimeoutMs_ = std::min(nextTimeoutMs_, now() + options_.stallTimeoutMs);
    job->download->unpause();
    break;
  }
  if (!throttled_.empty()) nextReleaseMs_ = now() + kReleaseIntervalMs;
}

// --- Disk ---------------------------------------------------------------------------------------

TransferContent& TransferScheduler::contentOf(Job& job) {
  return job.download ? job.download->content() : job.content;
}

void TransferScheduler::takeDiskError(Job& job, int error) {
  if (isFull(error)) return waitForRoom(job);
  const std::string path = ledger_.files().path(job.content.file);
  endJob(job, Error::errorWithErrno(error, "write", path), false);
}

void TransferScheduler::waitForRoom(Job& job) {
  leaveActive(job);
  setTrying(job, false);
  if (job.diskFullSinceMs < 0) job.diskFullSinceMs = now();
  job.state = State::DiskFull;
  job.untilMs = now() + kRoomCheckMs;
  wakeLater(job.untilMs);
  tellWait(job, URLSessionTaskWait::DiskFull, 0, ledger_.files().directory());
  static_cast<void>(ledger_.setContent(job.id, job.content, job.effort));
}

void TransferScheduler::checkRoom(Job& job) {
  if (now() - job.diskFullSinceMs >= options_.diskFullBoundMs) {
    const bool resumable = job.content.received > 0 && !job.content.validator.empty();
    return endJob(job,
                  Error::errorWithErrno(ENOSPC, "write", ledger_.files().path(job.content.file)),
                  resumable);
  }
  const int64_t free = ledger_.files().freeBytes();
  const auto& content = job.content;
  const int64_t missing = content.expected < 0 ? kRoomWanted : content.expected - content.received;
  if (free < 0 || free >= std::min(missing, kRoomWanted)) return enqueue(job);
  job.untilMs = now() + kRoomCheckMs;
  wakeLater(job.untilMs);
}

// When there are so many new bytes that can be continued.
void TransferScheduler::considerFlush(Job& job, int64_t bytes) {
  const auto& content = contentOf(job);
  if (content.received - job.flushAsked < bytes || content.validator.empty()) return;
  job.flushAsked = content.received;
  job.flushAtMs = now();
  FileDescriptor fd;
  if (ledger_.files().openForAppend(content.file, fd) != 0) return;
  flusher_.flush({job.id, content.file, content.received}, std::move(fd));
}

void TransferScheduler::takeFlushed() {
  const auto all = flusher_.takeFlushed();
  for (const auto& flushed : all) {
    if (flushed.error != 0) {
      takeFailedFlush(flushed);
    } else {
      ledger_.setSynced(flushed.task, flushed.file, flushed.length);
      if (Job* const job = find(flushed.task)) job->failedFlushes = 0;
    }
  }
  // A flush that was lost brings nothing.
  for (const TransferTaskId id : std::exchange(flushing_, {})) {
    Job* const job = find(id);
    if (job && job->state == State::Flushing) endWhole(*job);
  }
}

// A whole file is told of when no flush of it is under way that could still fail.
void TransferScheduler::endWhole(Job& job) {
  if (!flusher_.isPending(job.content.file)) return endJob(job, nullptr, false, job.contentHash);
  leaveActive(job);
  setTrying(job, false);
  job.state = State::Flushing;
  flushing_.push_back(job.id);
}

// What the disk has is kept, the rest fetched again.
void TransferScheduler::takeFailedFlush(const FileFlusher::Flushed& flushed) {
  const auto found = std::find_if(jobs_.begin(), jobs_.end(), [&flushed](const auto& job) {
    return contentOf(*job.second).file == flushed.file;
  });
  if (found == jobs_.end()) {
    ledger_.dropUnsynced(flushed.file);
    return;
  }
  Job& job = *found->second;
  stopDownload(job);
  auto& content = job.content;
  content.received = content.synced = ledger_.dropUnsynced(flushed.file);
  job.effort.furthest = std::min(job.effort.furthest, content.received);
  job.flushAsked = content.received;
  if (content.received == 0) {
    content.expected = URLSessionTransferSizeUnknown;
    content.validator.clear();
  }
  if (job.state == State::Graced) return park(job);
  if (!isFull(flushed.error) && ++job.failedFlushes > kMostFailedFlushes) {
    const std::string path = ledger_.files().path(content.file);
    return endJob(job, Error::errorWithErrno(flushed.error, "flush", path),
                  content.received > 0 && !content.validator.empty());
  }
  if (job.state != State::Active && job.state != State::Flushing) return;
  leaveActive(job);
  setTrying(job, false);
  if (isFull(flushed.error)) return waitForRoom(job);
  job.state = State::Retrying;
  job.untilMs = now() + backOffMs(job.failedFlushes, random());
  wakeLater(job.untilMs);
  tellWait(job, URLSessionTaskWait::Retry, job.untilMs);
}

}  // namespace platform
