#pragma once

#include <memory>

#include "engine/QNDownloadTypes.h"
#include "platform/Error.h"
#include "platform/Export.h"

class QNMovieDownloadSet;
class QNQuality;

// The application's observer of one set, held weakly; every method is optional. Called on the
// thread of the change (the session's delegate queue, or the caller's of a control operation), with
// the set's lock held. From inside, every method of the set and of its downloader may be called, on
// this thread; a callee must not wait for another thread that does so. An exception that leaves a
// method is logged and ends there.
class QN_EXPORT QNMovieDownloadSetDelegate {
 public:
  using Set = std::shared_ptr<QNMovieDownloadSet>;
  using Quality = std::shared_ptr<QNQuality>;

  virtual ~QNMovieDownloadSetDelegate() = default;

  // After the set started, paused, resumed, was cancelled or finished. Idle without a completion
  // right after it: also when everything active ended and qualities that a relaunch selected were
  // never started.
  virtual void movieDownloadSetDidChangeStatus(const Set& /*set*/, QNDownloadStatus /*status*/) {}
  // The last selected quality finished; null when none failed. Comes right after the status idle.
  virtual void movieDownloadSetDidCompleteWithError(const Set& /*set*/,
                                                    const platform::ErrorPtr& /*error*/) {}
  // One quality finished all its resources; null when none failed.
  virtual void movieDownloadSetDidCompleteQualityWithError(const Set& /*set*/,
                                                           const Quality& /*quality*/,
                                                           const platform::ErrorPtr& /*error*/) {}
  // With every byte report (several a second for each transfer), unless the quality's progress,
  // respectively the set's, is unknown. The second follows the first.
  virtual void movieDownloadSetDidUpdateProgressForQuality(const Set& /*set*/,
                                                           QNDownloadProgress /*progress*/,
                                                           const Quality& /*quality*/) {}
  virtual void movieDownloadSetDidUpdateProgress(const Set& /*set*/,
                                                 QNDownloadProgress /*progress*/) {}
};
