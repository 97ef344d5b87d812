#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/Choice.h"
#include "cli/Place.h"
#include "cli/Progress.h"
#include "cli/Wanted.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNMovieDownloadSetDelegate.h"

namespace cli {

// Notes what a set tells and wakes the main thread for it. The set holds it weakly.
class SetObserver : public QNMovieDownloadSetDelegate {
 public:
  // Errors of the qualities that completed with failures since the last call.
  std::map<std::shared_ptr<QNQuality>, platform::ErrorPtr> takeFailures();

  void movieDownloadSetDidChangeStatus(const Set& set, QNDownloadStatus status) override;
  void movieDownloadSetDidCompleteQualityWithError(const Set& set, const Quality& quality,
                                                   const platform::ErrorPtr& error) override;

 private:
  platform::Mutex mutex_;
  std::map<Quality, platform::ErrorPtr> failures_ GUARDED_BY(mutex_);
};

// Drives one set until everything that is wanted is stored or has failed, or a signal comes. All on
// the main thread. A set that re-attached tasks of an earlier launch knows only the qualities that
// had a task or a file; whenever it goes idle the wanted ones that it has not tried are started.
class DownloadRun {
 public:
  DownloadRun(std::shared_ptr<QNMovieDownloader> downloader,
              std::shared_ptr<QNMovieDownloadSet> set, Wanted wanted);
  ~DownloadRun();
  DownloadRun(const DownloadRun&) = delete;
  DownloadRun& operator=(const DownloadRun&) = delete;

  bool isComplete() const;
  // Tasks that an earlier launch left are dropped before the start, because they ask for something
  // else now.
  void dropEarlierTasks();
  // False when a signal or `leave` ended it; the set is paused then, unless it is idle.
  // `onTurn` is called now and then, first when everything that can be started has been.
  using Turn = std::function<void()>;
  [[nodiscard]] bool run(Progress& progress, const Turn& onTurn = {});

  // What other commands ask for, from within a turn.
  void pause() { downloader_->pause(set_); }
  void resume() { downloader_->resume(set_); }
  void cancel() { downloader_->cancel(set_); }
  void leave() { leaving_ = true; }

  // Wanted qualities that are not stored, with what happened to them (null: not tried).
  std::vector<std::pair<std::shared_ptr<QNQuality>, platform::ErrorPtr>> missing() const;
  Figures figures() const;
  const Wanted& wanted() const { return wanted_; }
  const std::shared_ptr<QNMovieDownloadSet>& set() const { return set_; }

 private:
  void _joinEarlierTasks();
  bool _startNext();
  bool _start();
  std::string _waitReason() const;

  const std::shared_ptr<QNMovieDownloader> downloader_;
  const std::shared_ptr<QNMovieDownloadSet> set_;
  const Wanted wanted_;
  const std::shared_ptr<SetObserver> observer_;
  std::map<std::shared_ptr<QNQuality>, platform::ErrorPtr> failed_;
  bool leaving_ = false;
};

}  // namespace cli
