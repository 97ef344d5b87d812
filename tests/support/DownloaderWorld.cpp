#include "tests/support/DownloaderWorld.h"

#include <algorithm>

#include "engine/QNDownloadRecord.h"

namespace qntest {
DownloaderWorld::DownloaderWorld() {
  files.setFast();
}

void DownloaderWorld::launch() {
  downloader = QNMovieDownloader::initWithIdentifier("test", false, false, root.path("downloads"));
}

void DownloaderWorld::kill() {
  downloader.reset();
  delegate = std::make_shared<RecordingDelegate>();
}

std::string DownloaderWorld::directory() const {
  static const std::string identifier = QNMovieDownloader::downloadIdWithURL(url, std::string());
  return root.path("downloads/" + identifier);
}

void DownloaderWorld::storeManifest(const std::vector<QualityPlan>& qualities) {
  const std::string path = directory() + "/manifest.mpd";
  root.write(path.substr(root.path().size() + 1), makeMPD(qualities));
}

std::shared_ptr<QNMovieDownloadSet> DownloaderWorld::activate() {
  auto set = downloader->activateDownloadSetForURL(url);
  if (set) set->setDelegate(delegate);
  return set;
}

std::shared_ptr<QNMovieDownloadSet> DownloaderWorld::followRecipe() {
  const auto set = activate();
  if (!set) return nullptr;
  delegate->react = [this](const auto& told, const std::string& line) {
    if (line != "status idle") return;
    told->selectAllQualities();  // what is neither selected nor downloaded
    downloader->download(told);
  };
  if (set->status() == QNDownloadStatusRunning) downloader->pause(set);
  if (set->status() == QNDownloadStatusPaused) downloader->resume(set);
  if (set->status() == QNDownloadStatusIdle) delegate->react(set, "status idle");
  serveAll();
  set->_checkInvariants();
  return set;
}

std::string DownloaderWorld::stored() const {
  std::vector<std::string> names;
  for (const auto& file : platform::FileManager::defaultManager().filesBelow(directory()))
    names.push_back(file.path);
  std::sort(names.begin(), names.end());
  std::string text;
  for (const auto& name : names) {
    if (name != QNMoviePropertiesFileName && name != QNDownloadRecordFileName &&
        name != "manifest.mpd")
      text += name + " ";
  }
  return text;
}

std::string DownloaderWorld::bodyOf(const std::string& reference) {
  std::string body;
  for (int i = 0; i < 5; ++i)
    body += reference + "|";
  return body;
}

void DownloaderWorld::serveAll() {
  for (bool moved = true; moved;) {
    moved = session().deliverEvents() != 0;
    for (const auto& task : session().runningTasks()) {
      const auto& taskURL = task->originalRequest()->url();
      const std::string path = taskURL ? taskURL->path() : "";
      const std::string base = "/movie/";
      if (!session().serve(task, bodyOf(path.substr(std::min(base.size(), path.size()))))) continue;
      moved = true;
      (void)session().deliverEvents();
    }
  }
}

}  // namespace qntest
