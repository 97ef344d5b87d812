#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/QNMovieDownloadSet.h"
#include "engine/QNMovieDownloadSetDelegate.h"
#include "engine/QNMovieDownloader.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "engine/QNResourceId.h"
#include "engine/QNSessionController.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNQuality.h"
#include "tests/support/ScriptedSession.h"

namespace qntest {

// A quality to be made: its resources are "reference" or "reference@offset+length".
struct QualityPlan {
  QNMediaType type = QNMediaTypeVideo;
  std::string identifier;
  std::vector<std::string> resources;
  uint32_t bitrate = 0;
  double duration = 0;  // of the track, seconds
};

// "v/1", "v/2", ... as many as asked for.
std::vector<std::string> numbered(const std::string& prefix, size_t count);
// One movie, a track for each quality.
std::shared_ptr<QNPlaylist> makePlaylist(const std::vector<QualityPlan>& qualities);
// The same as an MPD, for what goes through the parsers; resources without range only.
std::string makeMPD(const std::vector<QualityPlan>& qualities);

// A resource, quality or set on one line.
//   resource: "idle 0/100" "paused 10/100~ reactivated 1 failed -1001 completed" (~: an estimate)
//   quality:  "active 2 running 1 completed 1 failed 0 sized 4 estimated 3 [CR p.]", a letter for
//             each resource: . idle  ! idle with an error  p paused  R running  C completed  F
//             failed
//   set:      "running selected v:[..] downloaded a completed 0 failed 0"
std::string render(QNDownloadSize size);
std::string render(const QNResourceDownloadInfo& resource);
std::string render(const QNQualityDownloadInfo& quality);
std::string render(const QNMovieDownloadSet& set);
std::string letters(const QNQualityDownloadInfo& quality);
std::string render(const platform::ErrorPtr& error);  // "none", or "domain code"

// The controller of resources that are tried without a downloader.
class PlainController : public QNSessionController {
 public:
  PlainController();

  std::shared_ptr<platform::URLSession> downloadSession() override { return session; }
  void resourceAttachTask(const std::shared_ptr<QNResourceDownloadInfo>& resource,
                          const std::shared_ptr<platform::URLSessionDownloadTask>& task) override;
  void resourceDetachTask(const std::shared_ptr<QNResourceDownloadInfo>& resource,
                          const std::shared_ptr<platform::URLSessionDownloadTask>& task) override;

  std::shared_ptr<ScriptedSession> session;
  std::map<std::shared_ptr<platform::URLSessionDownloadTask>,
           std::shared_ptr<QNResourceDownloadInfo>>
      tasks;
  std::string log;  // "+0 " for an attachment of resource 0, "-0 " for its end
};

// Writes down what it is told, one line each, and does what a test wants meanwhile.
class RecordingDelegate : public QNMovieDownloadSetDelegate {
 public:
  void movieDownloadSetDidChangeStatus(const Set& set, QNDownloadStatus status) override;
  void movieDownloadSetDidCompleteWithError(const Set& set,
                                            const platform::ErrorPtr& error) override;
  void movieDownloadSetDidCompleteQualityWithError(const Set& set, const Quality& quality,
                                                   const platform::ErrorPtr& error) override;
  void movieDownloadSetDidUpdateProgressForQuality(const Set& set, QNDownloadProgress progress,
                                                   const Quality& quality) override;
  void movieDownloadSetDidUpdateProgress(const Set& set, QNDownloadProgress progress) override;

  std::string take();  // the lines since the last call

  bool recordsProgress = false;
  platform::ErrorPtr lastError;
  // Called with the line, after it was written down.
  std::function<void(const Set& set, const std::string& line)> react;

 private:
  void write(const Set& set, const std::string& line);
  std::string lines_;
};

}  // namespace qntest
