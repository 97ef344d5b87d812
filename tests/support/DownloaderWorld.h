#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/QNMovieDownloader.h"
#include "tests/support/EngineWorld.h"
#include "tests/support/KillSwitch.h"
#include "tests/support/ManualQueue.h"
#include "tests/support/ScriptedFileManager.h"
#include "tests/support/ScriptedSession.h"
#include "tests/support/ScriptedSharedSession.h"
#include "tests/support/TempDirectory.h"

namespace qntest {

// A downloader over scripted services, in a directory of its own, that can be killed and launched
// again.
class DownloaderWorld {
 public:
  static constexpr const char* url = "http://host/movie/manifest.mpd?token=1";

  DownloaderWorld();

  // As the application does at its start; the earlier downloader must be gone.
  void launch();
  // Everything that is in memory goes.
  void kill();
  // Puts a manifest where the downloader finds it, before a launch or after.
  void storeManifest(const std::vector<QualityPlan>& qualities);
  // The stored download, active, with the delegate.
  std::shared_ptr<QNMovieDownloadSet> activate();
  // After a launch: does what the documentation tells an application to do, and nothing else, until
  // nothing moves. The application wants everything. Null: nothing is stored.
  std::shared_ptr<QNMovieDownloadSet> followRecipe();
  ScriptedSession& session() { return *sessions.session(); }
  std::string directory() const;  // of the download
  std::string stored() const;     // names of the files there, except manifest and properties
  // What a server sends for a resource.
  static std::string bodyOf(const std::string& reference);
  // Serves every running task and delivers every event until nothing moves.
  void serveAll();

  TempDirectory root;
  std::shared_ptr<KillSwitch> killSwitch = std::make_shared<KillSwitch>();
  ScriptedFileManager files{killSwitch};
  ManualMainQueue mainQueue;
  ManualBackgroundQueue backgroundQueue;
  ScriptedSessions sessions{killSwitch};
  ScriptedSharedSession shared;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QNMovieDownloader> downloader;
};

}  // namespace qntest
