#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/host/QNLog.h"
#include "playlist/QNMovie.h"
#include "playlist/QNTrack.h"
#include "tests/support/DownloaderWorld.h"

namespace {

using qntest::DownloaderWorld;
using qntest::QualityPlan;

// Qualities that share a file, list more than fits the window, list one thing that has no place,
// have stated and unknown sizes.
const std::vector<QualityPlan> kMovie = {
    {QNMediaTypeVideo, "v", {"init", "v/1", "v/2", "v/3", "v/4", "v/5", "v/6"}, 80000},
    {QNMediaTypeVideo, "w", {"init", "w/1", "w/2"}, 800},
    {QNMediaTypeAudio, "a", {"a/1", "manifest.mpd", "a/2"}},
    {QNMediaTypeText, "t", {"t/1"}}};

// An application, a network and a delegate without a plan. Everything they do is legal; what they
// meet is compared with a recount from scratch after every step.
class Storm {
 public:
  explicit Storm(unsigned seed) : random_(seed) {
    world_.storeManifest(kMovie);
    launch();
  }

  void run(int steps) {
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step)
      doSomething();
  }

  // In the end everything can be had.
  void settle() {
    world_.delegate->react = nullptr;
    world_.mainQueue->advance(std::chrono::seconds(2));
    if (set_->status() == QNDownloadStatusRunning) world_.downloader->pause(set_);
    if (set_->status() == QNDownloadStatusPaused) world_.downloader->resume(set_);
    for (int round = 0; round < 4; ++round) {
      world_.serveAll();
      recount();
      ASSERT_EQ(set_->status(), QNDownloadStatusIdle);
      set_->selectAllQualities();
      if (!world_.downloader->download(set_)) break;
    }
    EXPECT_EQ(world_.stored(), "a/1 a/2 init t/1 v/1 v/2 v/3 v/4 v/5 v/6 w/1 w/2 ");
    for (const QualityPlan& plan : kMovie) {
      for (const std::string& name : plan.resources) {
        if (name == "manifest.mpd") continue;
        EXPECT_EQ(qntest::readFile(world_.directory() + "/" + name), world_.bodyOf(name)) << name;
      }
    }
    EXPECT_EQ(set_->numberOfDownloadedQualities(), 3U) << "one has a resource without a place";
  }

 private:
  size_t pick(size_t count) { return random_() % count; }
  bool chance(int percent) { return static_cast<int>(pick(100)) < percent; }

  void launch() {
    world_.launch();
    set_ = world_.activate();
    ASSERT_NE(set_, nullptr);
    world_.delegate->recordsProgress = true;
    world_.delegate->react = [this](const auto& set, const std::string& line) {
      react(*set, line);
    };
  }

  std::shared_ptr<QNQuality> anyQuality() {
    return set_->movie()->tracks()[pick(kMovie.size())]->qualities()[0];
  }

  std::shared_ptr<platform::URLSessionDownloadTask> anyTask() {
    const auto tasks = world_.session().tasks();
    return tasks.empty() ? nullptr : tasks[pick(tasks.size())];
  }

  void doSomething() {
    switch (pick(10)) {
      case 0:
      case 1:
        useApplication();
        break;
      case 2:
      case 3:
      case 4:
      case 5:
        useNetwork();
        break;
      case 6:
      case 7:
      case 8:
        (void)world_.session().deliverEvent();
        break;
      default:
        live();
        break;
    }
    world_.delegate->take();
    recount();
  }

  // Misuse is told by exceptions of the set; a broken promise of the engine would have another
  // name.
  void legally(const std::function<void()>& call) {
    try {
      call();
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "QNMovieDownloadSetException") << exception.reason();
    }
  }

  void useApplication() {
    auto& downloader = *world_.downloader;
    legally([&] {
      switch (pick(13)) {
        case 0:
          return set_->selectQuality(anyQuality());
        case 1:
          return set_->selectAllQualities();
        case 2:
          return set_->deselectQuality(anyQuality());
        case 3:
        case 4:
        case 5:
        case 6:
          return (void)downloader.download(set_);
        case 7:
          return (void)downloader.pause(set_);
        case 8:
        case 9:
          return (void)downloader.resume(set_);
        case 10:
          return (void)(chance(30) && downloader.cancel(set_));
        case 11:
          return set_->removeDownloadedQuality(anyQuality());
        default:
          if (chance(10)) set_->removeAllDownloadedQualities();
          if (chance(30)) set_->deselectAllQualities();
      }
    });
  }

  void useNetwork() {
    auto& session = world_.session();
    const auto task = anyTask();
    if (!task) return;
    const auto& url = task->originalRequest()->url();
    const std::string name = url ? url->path().substr(std::string("/movie/").size()) : "";
    const std::string body = world_.bodyOf(name);
    const auto received = static_cast<size_t>(task->countOfBytesReceived());
    switch (pick(8)) {
      case 0:
      case 1:
      case 2:
        (void)session.serve(task, body);
        break;
      case 3:
        if (received < body.size()) {
          const auto rest = static_cast<int64_t>(body.size() - received);
          (void)session.respond(task, received == 0 ? 200 : 206, chance(20) ? -1 : rest);
        }
        break;
      case 4: {
        const bool good = task->response() != nullptr;
        if (good && received < body.size())
          (void)session.deliver(task, body.substr(received, 1 + pick(body.size() - received)));
        break;
      }
      case 5:
        (void)session.fail(task, -1001 - static_cast<int>(pick(5)), chance(50));
        break;
      case 6:
        if (session.respond(task, chance(50) ? 404 : 500, 4)) (void)session.finish(task);
        break;
      default:
        break;
    }
  }

  void live() {
    switch (pick(8)) {
      case 0:
        world_.downloader->handleEnterForeground();
        break;
      case 1:
        world_.mainQueue->advance(std::chrono::milliseconds(pick(1500)));
        break;
      case 2:
        if (!chance(20)) break;
        set_.reset();
        world_.kill();
        launch();
        break;
      default:
        break;
    }
  }

  void react(const QNMovieDownloadSet& set, const std::string& line) {
    // What is told is so, at the moment when it is told.
    const std::map<std::string, QNDownloadStatus> statuses = {
        {"status idle", QNDownloadStatusIdle},
        {"status paused", QNDownloadStatusPaused},
        {"status running", QNDownloadStatusRunning}};
    const auto told = statuses.find(line);
    if (told != statuses.end()) {
      EXPECT_EQ(set.status(), told->second);
    }
    if (depth_ >= 2 || !chance(line.starts_with("progress") ? 2 : 20)) return;
    ++depth_;
    useApplication();
    --depth_;
  }

  void recount() {
    set_->_checkInvariants();
    std::set<std::shared_ptr<platform::URLSessionDownloadTask>> tasks;
    size_t active = 0, running = 0, completed = 0, failed = 0, sized = 0;
    int64_t bytes = 0;
    for (const auto& info : set_->selectedQualitiesInfo()) {
      active += info->numActive() != 0;
      running += info->numRunning() != 0;
      completed += info->completed();
      failed += info->failed();
      sized += info->expectedBytes().value != -1;
      bytes += recount(*info, tasks);
    }
    for (const auto& info : set_->downloadedQualitiesInfo()) {
      EXPECT_TRUE(info->completed() && !info->failed());
      bytes += recount(*info, tasks);
    }
    EXPECT_EQ(set_->numActive(), active);
    EXPECT_EQ(set_->numRunning(), running);
    EXPECT_EQ(set_->numCompleted(), completed);
    EXPECT_EQ(set_->numFailed(), failed);
    EXPECT_EQ(set_->numSized(), sized);
    EXPECT_EQ(set_->resourceBytes(), bytes);
  }

  int64_t recount(const QNQualityDownloadInfo& info,
                  std::set<std::shared_ptr<platform::URLSessionDownloadTask>>& tasks) {
    size_t active = 0, running = 0, completed = 0, failed = 0;
    int64_t bytes = 0;
    for (const auto& resource : info.resources()) {
      const auto task = resource->downloadTask();
      active += task != nullptr;
      running += resource->status() == QNDownloadStatusRunning;
      completed += resource->completed();
      failed += resource->completed() && resource->failed();
      bytes += resource->downloadedBytes();
      if (task) {
        EXPECT_TRUE(tasks.insert(task).second) << "one task for two resources";
      }
      if (resource->completed() && !resource->failed()) {
        EXPECT_TRUE(platform::FileManager::defaultManager().isRegularFile(resource->resourcePath()))
            << resource->relativeResourcePath();
      }
    }
    EXPECT_EQ(info.numActive(), active);
    EXPECT_EQ(info.numRunning(), running);
    EXPECT_EQ(info.numCompleted(), completed);
    EXPECT_EQ(info.numFailed(), failed);
    return bytes;
  }

  std::mt19937 random_;
  DownloaderWorld world_;
  std::shared_ptr<QNMovieDownloadSet> set_;
  int depth_ = 0;
};

int stepsWanted() {
  const char* const text = std::getenv("QN_RANDOM_STEPS");
  return text ? std::atoi(text) : 20000;
}

TEST(RandomSequences, NeverLeaveACounterOffOrAFileUnfinished) {
  std::string errors;
  QNSetLogTap([](int level) { return level >= QNLogLevelError; },
              [&](int, const std::string& message) {
                if (message.find("Exception in") != std::string::npos) errors += message + "\n";
              });
  const char* const wanted = std::getenv("QN_RANDOM_SEED");
  constexpr int kStepsOfOne = 2000;
  for (int done = 0; done < stepsWanted() && !HasFailure(); done += kStepsOfOne) {
    const unsigned seed =
        wanted ? static_cast<unsigned>(std::atoi(wanted)) : std::random_device()();
    SCOPED_TRACE("QN_RANDOM_SEED=" + std::to_string(seed));
    Storm storm(seed);
    storm.run(kStepsOfOne);
    if (!HasFailure()) storm.settle();
    EXPECT_EQ(errors, "");
  }
  QNSetLogTap(nullptr, nullptr);
}

}  // namespace
