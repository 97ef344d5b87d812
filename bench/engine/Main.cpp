// The engine at scale: building a set, what one session event costs as a quality grows, finding
// stored files again, listing downloads. Prints a table for docs/performance.md.
//   bench_engine            all sizes
//   bench_engine --check    the smallest, once, and fails when a promise about growth is broken

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <malloc.h>
#include <unistd.h>

#include "IdleSession.h"
#include "engine/QNDownloadRecord.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNMovieDownloader.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNRecordLine.h"
#include "engine/QNResourceDownloadInfo.h"
#include "platform/FileManager.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNTrack.h"
#include "playlist/QNVideoQuality.h"

namespace {

// Time of this thread on a processor: what others do on the machine does not count.
struct Clock {
  static double now() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
  }
};

double microsecondsSince(double start) {
  return Clock::now() - start;
}

size_t heapBytes() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

class Directory {
 public:
  Directory() {
    std::string path = std::filesystem::temp_directory_path() / "qn-bench-XXXXXX";
    path_ = mkdtemp(path.data());
  }
  ~Directory() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

class Controller : public QNSessionController {
 public:
  std::shared_ptr<platform::URLSession> downloadSession() override { return session_; }
  void resourceAttachTask(const std::shared_ptr<QNResourceDownloadInfo>&,
                          const std::shared_ptr<platform::URLSessionDownloadTask>&) override {}
  void resourceDetachTask(const std::shared_ptr<QNResourceDownloadInfo>&,
                          const std::shared_ptr<platform::URLSessionDownloadTask>&) override {}

 private:
  const std::shared_ptr<idle::Session> session_ = std::make_shared<idle::Session>();
};

// Lists "video/<quality>/segment-<n>.m4s" and keeps the list, as the builders of manifests do.
class Builder : public QNResourceListBuilder {
 public:
  Builder(size_t quality, size_t count) : quality_(quality), count_(count) {}

  QNResourceListPtr fillResourcesWithBaseURL(const std::optional<std::string>& baseURL) override {
    if (list_) return list_;
    auto base = std::make_shared<const std::string>(baseURL.value_or(""));
    auto list = std::make_shared<QNResourceList>();
    list->reserve(count_);
    for (size_t i = 0; i < count_; ++i)
      list->push_back(QNRangedURL::rangedURLWithReferenceURL(name(quality_, i), base));
    list_ = list;
    return list_;
  }

  static std::string name(size_t quality, size_t index) {
    return "video/" + std::to_string(quality) + "/segment-" + std::to_string(index) + ".m4s";
  }

 private:
  const size_t quality_;
  const size_t count_;
  QNResourceListPtr list_;
};

std::shared_ptr<QNPlaylist> movieOf(size_t qualities, size_t resources) {
  auto playlist = QNPlaylist::playlistWithMovieCapacity(1);
  auto movie = QNMovie::movieWithTrackCapacity(1, 7200, playlist);
  auto track =
      QNTrack::trackWithType(QNMediaTypeVideo, 7200, std::nullopt, std::nullopt, qualities, movie);
  for (size_t i = 0; i < qualities; ++i) {
    const auto builder = std::make_shared<Builder>(i, resources);
    track->addQuality(std::make_shared<QNVideoQuality>(builder, "avc1", std::to_string(i), 4000000,
                                                       nullptr, 1920, 1080, 4, track));
  }
  movie->addTrack(track);
  playlist->addMovie(movie);
  return playlist;
}

constexpr const char* kSource = "http://host/movie/manifest.mpd";
constexpr const char* kBase = "http://host/movie/";

std::shared_ptr<QNMovieDownloadSet> setOver(const std::shared_ptr<QNPlaylist>& playlist,
                                            const std::string& directory,
                                            const std::shared_ptr<Controller>& controller) {
  return QNMovieDownloadSet::downloadSetWithPlaylist(playlist, directory, "manifest.mpd", kSource,
                                                     "id", controller);
}

void listEverything(const QNPlaylist& playlist) {
  for (const auto& quality : playlist.movies()[0]->tracks()[0]->qualities())
    (void)quality->resourceBuilder()->fillResourcesWithBaseURL(std::string(kBase));
}

void measureBuilding(size_t qualities, size_t resources) {
  const Directory directory;
  const auto controller = std::make_shared<Controller>();
  const auto playlist = movieOf(qualities, resources);
  const double total = static_cast<double>(qualities * resources);
  auto start = Clock::now();
  listEverything(*playlist);
  const double listing = microsecondsSince(start) / total;
  const size_t before = heapBytes();
  start = Clock::now();
  auto set = setOver(playlist, directory.path(), controller);
  const double building = microsecondsSince(start) / total;
  const double bytes = static_cast<double>(heapBytes() - before) / total;
  start = Clock::now();
  set.reset();
  const double freeing = microsecondsSince(start) / total;
  std::printf(
      "| build %zu x %zu | list %.3f us, set %.3f us, freed %.3f us, %.0f bytes a resource |\n",
      qualities, resources, listing, building, freeing, bytes);
}

// Median cost of one completion in the middle of a quality: byte report, completion, next task.
double measureCompletions(size_t resources, bool halfStored) {
  const Directory directory;
  const auto controller = std::make_shared<Controller>();
  const auto playlist = movieOf(1, resources);
  auto set = setOver(playlist, directory.path(), controller);
  const auto quality = set->movie()->tracks()[0]->qualities()[0];
  const auto info = set->qualityInfoForQuality(quality);
  if (halfStored) {
    // All but the first and the last quarter are there: what comes next is far away.
    for (size_t i = resources / 4; i < resources - resources / 4; ++i)
      info->resourceCompleteWithBytesPreloaded(info->resources()[i], 100);
  }
  set->selectQuality(quality);
  if (!set->downloadWithAdditionalHeaders(nullptr)) std::abort();
  std::vector<double> costs;
  const size_t events = std::min<size_t>(resources / 2 - 8, 20000);
  for (size_t i = 0; i < events; ++i) {
    const auto resource = info->activeResources().front();
    const auto start = Clock::now();
    set->resourceBytesDownloadedAndExpected(resource, 100, 100);
    set->resourceCompleteWithError(resource, nullptr);
    costs.push_back(microsecondsSince(start));
  }
  std::sort(costs.begin(), costs.end());
  std::printf("| completion, %zu resources%s | median %.2f us, 99 %% %.2f us, worst %.1f us |\n",
              resources, halfStored ? ", half of them stored" : "", costs[costs.size() / 2],
              costs[costs.size() * 99 / 100], costs.back());
  set->cancel();
  return costs[costs.size() / 2];
}

void measureRebuild(size_t resources) {
  const Directory directory;
  std::filesystem::create_directories(directory.path() + "/video/0");
  for (size_t i = 0; i < resources; i += 2)
    std::ofstream(directory.path() + "/" + Builder::name(0, i)) << "x";
  const auto controller = std::make_shared<Controller>();
  const auto playlist = movieOf(1, resources);
  listEverything(*playlist);
  auto start = Clock::now();
  const auto files = platform::FileManager::defaultManager().filesBelow(directory.path());
  const double walking = microsecondsSince(start);
  start = Clock::now();
  const auto set = setOver(playlist, directory.path(), controller);
  const double rebuilding = microsecondsSince(start);
  const auto info = set->selectedQualitiesInfo().at(0);
  if (info->numCompleted() != (resources + 1) / 2) std::abort();
  std::printf(
      "| rebuild, %zu of %zu files there | %.0f ms, of which the directory walk %.0f ms |\n",
      files.size(), resources, rebuilding / 1000, walking / 1000);
}

// A record of `lines` files; with `walks`, beside a walk over as many files.
void measureRecord(size_t lines, bool walks) {
  const Directory directory;
  std::string text = QNRecordHeader(QNDownloadRecord::version) + QNRecordMark("boot", 0);
  std::filesystem::create_directories(directory.path() + "/video/0");
  for (size_t i = 0; i < lines; ++i) {
    const std::string name = Builder::name(0, i);
    text += QNRecordFile(name, 1, i, "\"5f2a-61c0b1d4\"", " " + (kBase + name));
    if (walks) std::ofstream(directory.path() + "/" + name) << "x";
  }
  text += QNRecordMark("boot", text.size());
  std::ofstream(directory.path() + "/" + QNDownloadRecordFileName, std::ios::binary) << text;
  auto start = Clock::now();
  if (walks) (void)platform::FileManager::defaultManager().filesBelow(directory.path());
  const double walking = microsecondsSince(start);
  const size_t before = heapBytes();
  start = Clock::now();
  const auto record = QNDownloadRecord::load(directory.path(), "boot");
  const double reading = microsecondsSince(start);
  if (!record->trusts(Builder::name(0, lines / 2), 1)) std::abort();
  const double count = static_cast<double>(lines);
  std::printf("| record of %zu files (%zu bytes) | read in %.0f ms, %.3f us and %.0f bytes a file",
              lines, text.size(), reading / 1000, reading / count,
              static_cast<double>(heapBytes() - before) / count);
  if (walks) std::printf(", a walk over them %.0f ms (%.2f)", walking / 1000, reading / walking);
  std::printf(" |\n");
}

void measureListing(size_t downloads) {
  const Directory directory;
  for (size_t i = 0; i < downloads; ++i) {
    const std::string path = directory.path() + "/" + std::to_string(i);
    std::filesystem::create_directory(path);
    std::ofstream(path + "/" + QNMoviePropertiesFileName)
        << R"({"QNDownloadSetSourceURL":"http://h/m","QNDownloadSetManifestName":"manifest.mpd",)"
        << R"("QNDownloadedQualityIdentifiers":["a","b"]})";
  }
  platform::URLSession::setProvider(
      [](const auto&, auto) { return std::make_shared<idle::Session>(); });
  const auto downloader =
      QNMovieDownloader::initWithIdentifier("bench", false, false, directory.path());
  const auto start = Clock::now();
  if (downloader->downloadedMovies().size() != downloads) std::abort();
  std::printf("| downloadedMovies over %zu downloads | %.1f ms |\n", downloads,
              microsecondsSince(start) / 1000);
}

}  // namespace

int main(int argc, char** argv) {
  const bool check = argc > 1 && std::strcmp(argv[1], "--check") == 0;
  std::printf("| what | measured |\n|---|---|\n");
  if (check) {
    measureBuilding(2, 500);
    measureRebuild(500);
    measureListing(20);
    measureRecord(500, true);
    const double few = measureCompletions(1000, false);
    const double many = measureCompletions(30000, true);
    // Thirty times the resources: a walk would show as thirty times the cost.
    return many > few * 8 ? 1 : 0;
  }
  measureBuilding(16, 10000);
  measureBuilding(1, 1000000);
  for (const size_t resources : {1000, 10000, 100000, 1000000})
    measureCompletions(resources, false);
  for (const size_t resources : {1000, 1000000})
    measureCompletions(resources, true);
  measureRebuild(100000);
  for (const size_t lines : {1000, 10000, 100000})
    measureRecord(lines, true);
  measureRecord(1000000, false);
  measureListing(1000);
  return 0;
}
