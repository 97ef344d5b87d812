#include "cli/DownloadRun.h"

#include <algorithm>
#include <chrono>

#include "cli/Interrupt.h"
#include "cli/Place.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"

namespace cli {
namespace {

using Clock = std::chrono::steady_clock;

double secondsNow() {
  return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

bool contains(const std::vector<std::shared_ptr<QNQuality>>& list,
              const std::shared_ptr<QNQuality>& quality) {
  return std::find(list.begin(), list.end(), quality) != list.end();
}

std::string describe(const platform::URLSessionTaskWaitReason& reason) {
  const std::string detail = reason.detail.empty() ? "" : " (" + reason.detail + ")";
  switch (reason.wait) {
    case platform::URLSessionTaskWait::Network:
      return "waiting for the network" + detail;
    case platform::URLSessionTaskWait::Metered:
      return "waiting for a network that is not metered" + detail;
    case platform::URLSessionTaskWait::Retry:
      return "trying again in " + std::to_string(static_cast<int>(reason.secondsUntilRetry + 0.5)) +
             " s" + detail;
    case platform::URLSessionTaskWait::DiskFull:
      return "waiting for room on the disk" + detail;
    case platform::URLSessionTaskWait::None:
    case platform::URLSessionTaskWait::Suspended:
    case platform::URLSessionTaskWait::Limit:
      break;
  }
  return {};
}

}  // namespace

std::map<std::shared_ptr<QNQuality>, platform::ErrorPtr> SetObserver::takeFailures() {
  const platform::MutexLock lock(mutex_);
  return std::exchange(failures_, {});
}

void SetObserver::movieDownloadSetDidChangeStatus(const Set&, QNDownloadStatus) {
  Interrupt::wake();
}

void SetObserver::movieDownloadSetDidCompleteQualityWithError(const Set&, const Quality& quality,
                                                              const platform::ErrorPtr& error) {
  const platform::MutexLock lock(mutex_);
  if (error) failures_[quality] = error;
}

DownloadRun::DownloadRun(std::shared_ptr<QNMovieDownloader> downloader,
                         std::shared_ptr<QNMovieDownloadSet> set, Wanted wanted)
    : downloader_(std::move(downloader)),
      set_(std::move(set)),
      wanted_(std::move(wanted)),
      observer_(std::make_shared<SetObserver>()) {
  set_->setDelegate(observer_);
}

DownloadRun::~DownloadRun() {
  set_->setDelegate(nullptr);
}

bool DownloadRun::isComplete() const {
  return std::all_of(wanted_.qualities.begin(), wanted_.qualities.end(),
                     [&](const auto& quality) { return set_->isQualityDownloaded(quality); });
}

void DownloadRun::dropEarlierTasks() {
  downloader_->cancel(set_);
}

// Some of the tasks may be suspended and others running, wherever the earlier launch was stopped.
void DownloadRun::_joinEarlierTasks() {
  if (set_->status() == QNDownloadStatusIdle) return;
  for (const auto& info : set_->selectedQualitiesInfo()) {
    if (info->status() != QNDownloadStatusIdle && !contains(wanted_.qualities, info->quality())) {
      downloader_->cancel(set_);
      return;
    }
  }
  if (set_->status() == QNDownloadStatusRunning) downloader_->pause(set_);
  downloader_->resume(set_);
}

bool DownloadRun::_start() {
  try {
    return downloader_->download(set_);
  } catch (const platform::Exception& exception) {
    if (auto held = failureOfHeld(exception)) throw std::move(*held);
    throw;
  }
}

// Selects and starts what is wanted, neither stored nor failed in this run. False when nothing is
// left. Idle only.
bool DownloadRun::_startNext() {
  std::vector<std::shared_ptr<QNQuality>> next;
  for (const auto& quality : wanted_.qualities) {
    if (!set_->isQualityDownloaded(quality) && !failed_.count(quality)) next.push_back(quality);
  }
  if (next.empty()) return false;
  set_->deselectAllQualities();
  for (const auto& quality : next)
    set_->selectQuality(quality);
  if (!_start()) {
    // Whatever completed earlier is settled by the attempt; what is still missing has nothing to be
    // started.
    for (const auto& quality : next) {
      if (!set_->isQualityDownloaded(quality)) failed_.emplace(quality, nullptr);
    }
  }
  return true;
}

bool DownloadRun::run(Progress& progress, const Turn& onTurn) {
  _joinEarlierTasks();
  while (Interrupt::exitCode() == 0) {
    const bool idle = set_->status() == QNDownloadStatusIdle;
    // Read after the status: a set tells its failures before it is idle.
    for (auto& [quality, error] : observer_->takeFailures())
      failed_[quality] = error;
    if (idle && !_startNext()) {
      progress.clear();
      return true;
    }
    if (onTurn) onTurn();
    if (leaving_) break;
    const double now = secondsNow();
    if (progress.isDue(now)) progress.show(figures(), now);
    const double pause = std::max(0.01, progress.secondsUntilDue(secondsNow()));
    Interrupt::wait(std::chrono::milliseconds(static_cast<int>(pause * 1000) + 1));
  }
  downloader_->pause(set_);
  progress.clear();
  return false;
}

std::vector<std::pair<std::shared_ptr<QNQuality>, platform::ErrorPtr>> DownloadRun::missing()
    const {
  std::vector<std::pair<std::shared_ptr<QNQuality>, platform::ErrorPtr>> list;
  for (const auto& quality : wanted_.qualities) {
    if (set_->isQualityDownloaded(quality)) continue;
    const auto failure = failed_.find(quality);
    list.emplace_back(quality, failure == failed_.end() ? nullptr : failure->second);
  }
  return list;
}

Figures DownloadRun::figures() const {
  using State = QualityFigures::State;
  Figures figures;
  const platform::RecursiveLock lock(*set_->mutex());
  for (const auto& quality : wanted_.qualities) {
    const auto info = set_->qualityInfoForQuality(quality);
    QualityFigures entry;
    entry.label = labelOf(*quality);
    entry.bytes = info->resourceBytes();
    entry.expected = info->expectedBytes().value;
    entry.estimated = info->expectedBytes().estimated;
    if (set_->isQualityDownloaded(quality)) {
      entry.state = State::Complete;
    } else if (info->status() != QNDownloadStatusIdle) {
      entry.state = State::Active;
    } else if (failed_.count(quality)) {
      entry.state = State::Failed;
    }
    figures.qualities.push_back(std::move(entry));
  }
  figures.paused = set_->status() == QNDownloadStatusPaused;
  figures.waiting = _waitReason();
  return figures;
}

// Why nothing moves: the reason of the first task, when every task has one.
std::string DownloadRun::_waitReason() const {
  std::string first;
  for (const auto& quality : wanted_.qualities) {
    for (const auto& resource : set_->qualityInfoForQuality(quality)->activeResources()) {
      const auto task = resource->downloadTask();
      const std::string text = task ? describe(task->waitReason()) : "";
      if (text.empty()) return {};
      if (first.empty()) first = text;
    }
  }
  return first;
}

}  // namespace cli
