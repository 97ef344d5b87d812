#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Application.h"
#include "platform/Exception.h"
#include "platform/host/QNLog.h"
#include "playlist/QNMovie.h"
#include "playlist/QNTrack.h"
#include "tests/support/DownloaderWorld.h"

namespace {

using qntest::DownloaderWorld;
using qntest::numbered;

constexpr int kRounds = 400;

// Calls back into set and downloader from inside, whatever it is told.
class MeddlingDelegate : public QNMovieDownloadSetDelegate {
 public:
  explicit MeddlingDelegate(std::weak_ptr<QNMovieDownloader> downloader)
      : downloader_(std::move(downloader)) {}

  void movieDownloadSetDidChangeStatus(const Set& set, QNDownloadStatus) override { meddle(set); }
  void movieDownloadSetDidCompleteWithError(const Set& set, const platform::ErrorPtr&) override {
    meddle(set);
  }
  void movieDownloadSetDidCompleteQualityWithError(const Set& set, const Quality& quality,
                                                   const platform::ErrorPtr&) override {
    (void)set->progressForQuality(quality);
    meddle(set);
  }
  void movieDownloadSetDidUpdateProgress(const Set& set, QNDownloadProgress) override {
    meddle(set);
  }

  std::atomic<int> calls{0};

 private:
  void meddle(const Set& set) {
    const int call = ++calls;
    const auto downloader = downloader_.lock();
    if (!downloader) return;
    try {
      switch (call % 7) {
        case 0:
          return (void)downloader->pause(set);
        case 1:
          return (void)downloader->resume(set);
        case 2:
          return set->selectAllQualities();
        case 3:
          return (void)(call % 5 == 0 && downloader->cancel(set));
        case 4:
          return (void)downloader->download(set);
        default:
          return (void)set->progress();
      }
    } catch (const platform::Exception&) {
      // Not in this state.
    }
  }

  const std::weak_ptr<QNMovieDownloader> downloader_;
};

TEST(Threads, ApplicationDelegateSessionAndMainQueueGetAlong) {
  std::atomic<int> faults{0};
  QNSetLogTap([](int level) { return level >= QNLogLevelError; },
              [&](int, const std::string& message) {
                faults += message.find("Exception in") != std::string::npos;
              });
  DownloaderWorld world;
  world.storeManifest(
      {{QNMediaTypeVideo, "v", numbered("v/", 8)}, {QNMediaTypeAudio, "a", numbered("a/", 8)}});
  world.launch();
  auto set = world.activate();
  const auto meddler = std::make_shared<MeddlingDelegate>(world.downloader);
  set->setDelegate(meddler);
  set->selectAllQualities();
  const auto downloader = world.downloader;
  const auto session = world.sessions.session();

  std::atomic<bool> done{false};
  const auto repeat = [&](auto body) {
    return std::thread([&, body] {
      for (unsigned round = 0; !done; ++round) {
        body(round);
        std::this_thread::yield();
      }
    });
  };
  std::vector<std::thread> others;
  others.push_back(repeat([&](unsigned) { (void)session->deliverEvent(); }));
  others.push_back(repeat([&](unsigned round) {
    const auto tasks = session->runningTasks();
    if (tasks.empty()) return;
    const auto& task = tasks[round % tasks.size()];
    const auto& url = task->originalRequest()->url();
    (void)(round % 9 == 0 ? session->fail(task, -1005, true)
                          : session->serve(task, world.bodyOf(url->path().substr(7))));
  }));
  others.push_back(repeat([&](unsigned round) {
    if (round % 8 == 0) platform::Application::sharedApplication().enterForeground();
    world.mainQueue->advance(std::chrono::milliseconds(100));
  }));
  others.push_back(repeat([&](unsigned round) {
    (void)set->status();
    (void)set->expectedBytes();
    (void)set->selectedQualities();
    (void)downloader->activeDownloadSets();
    if (round % 16 == 0) {
      for (const auto& movie : downloader->downloadedMovies())
        (void)movie->downloadedQualityIdentifiers();
    }
    set->_checkInvariants();
  }));

  std::mt19937 random(7);
  for (int round = 0; round < kRounds; ++round) {
    try {
      switch (random() % 6) {
        case 0:
          set->selectAllQualities();
          break;
        case 1:
          set->removeDownloadedQuality(set->movie()->tracks()[random() % 2]->qualities()[0]);
          break;
        case 2:
          downloader->pauseAll();
          break;
        case 3:
          downloader->resumeAll();
          break;
        case 4:
          downloader->handleBackgroundEventsWithCompletionHandler([] {});
          break;
        default:
          (void)downloader->download(set);
      }
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "QNMovieDownloadSetException") << exception.reason();
    }
    std::this_thread::yield();
  }
  done = true;
  for (auto& thread : others)
    thread.join();
  QNSetLogTap(nullptr, nullptr);
  EXPECT_EQ(faults, 0);
  EXPECT_GT(meddler->calls, 0);
  set->setDelegate(nullptr);
  set->_checkInvariants();
}

TEST(Threads, DownloadsAreFetchedAndRemovedFromSeveralThreads) {
  DownloaderWorld world;
  world.launch();
  const auto downloader = world.downloader;
  const std::string manifest = qntest::makeMPD({{QNMediaTypeVideo, "v", {"v/1"}}});
  std::atomic<int> fetched{0};
  std::atomic<bool> done{false};
  std::thread server([&] {
    while (!done)
      (void)world.shared.answer(manifest);
  });
  std::vector<std::thread> users;
  for (int user = 0; user < 3; ++user) {
    users.emplace_back([&, user] {
      const std::string url = "http://host/movie" + std::to_string(user % 2) + "/m.mpd";
      for (int round = 0; round < 30; ++round) {
        downloader->fetchDownloadSetForURL(
            url, [&](const auto& set, const auto&) { fetched += set != nullptr; });
        const auto set = downloader->fetchActiveDownloadSetForURL(url);
        if (!set || round % 3 != 0) continue;
        try {
          set->selectAllQualities();
          (void)downloader->download(set);
          (void)downloader->remove(set);
        } catch (const platform::Exception&) {
          // Another thread was faster.
        }
      }
    });
  }
  for (auto& user : users)
    user.join();
  while (!world.shared.waiting().empty())
    std::this_thread::yield();
  done = true;
  server.join();
  EXPECT_GT(fetched, 0);
  for (const auto& set : downloader->activeDownloadSets())
    set->_checkInvariants();
}

}  // namespace
