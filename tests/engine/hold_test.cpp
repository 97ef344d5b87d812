#include <any>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/Exception.h"
#include "playlist/QNMovie.h"
#include "playlist/QNTrack.h"
#include "tests/support/DownloaderWorld.h"

namespace {

using qntest::DownloaderWorld;
using qntest::render;

// Two downloaders with sessions of their own over one download root.
class Hold : public testing::Test {
 protected:
  Hold() {
    world.storeManifest(
        {{QNMediaTypeVideo, "v", {"v/1", "v/2"}}, {QNMediaTypeAudio, "a", {"a/1"}}});
    world.launch();
    session = world.sessions.session();
    other =
        QNMovieDownloader::initWithIdentifier("other", false, false, world.root.path("downloads"));
    set = world.activate();
    otherSet = other->activateDownloadSetForURL(world.url);
    set->selectAllQualities();
    otherSet->selectAllQualities();
  }

  // Who has what the call needs; "" when it went through.
  std::string holderIn(const std::function<void()>& call) {
    try {
      call();
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "QNMovieDownloaderException") << exception.reason();
      const auto holder = exception.userInfo().find(QNDownloadHolderKey);
      return holder == exception.userInfo().end() ? exception.reason()
                                                  : std::any_cast<std::string>(holder->second);
    }
    return "";
  }

  DownloaderWorld world;
  std::shared_ptr<qntest::ScriptedSession> session;
  std::shared_ptr<QNMovieDownloader> other;
  std::shared_ptr<QNMovieDownloadSet> set;
  std::shared_ptr<QNMovieDownloadSet> otherSet;
};

TEST_F(Hold, KeepsOthersFromStartingAndRemovingUntilIdle) {
  ASSERT_TRUE(world.downloader->download(set));
  const std::string us = "another downloader of this process";
  for (const bool paused : {false, true}) {
    if (paused) world.downloader->pause(set);
    EXPECT_EQ(holderIn([&] { other->download(otherSet); }), us);
    EXPECT_EQ(holderIn([&] { other->remove(otherSet); }), us);
    EXPECT_EQ(holderIn([&] { other->removeAll(); }), us);
    EXPECT_EQ(holderIn([&] { otherSet->removeAllDownloadedQualities(); }), us);
  }
  EXPECT_EQ(set->status(), QNDownloadStatusPaused);
  EXPECT_EQ(other->activateDownloadSetForURL(world.url), otherSet);
  EXPECT_EQ(other->downloadedMovies().size(), 1U);
  world.downloader->cancel(set);
  EXPECT_TRUE(other->download(otherSet));
  EXPECT_EQ(holderIn([&] { world.downloader->download(set); }), us);
  EXPECT_TRUE(other->remove(otherSet));
  EXPECT_FALSE(std::filesystem::exists(world.directory()));
}

// Another process has a download, or partial files of a session of its own.
TEST_F(Hold, RemovesNothingThatAnotherProcessWorksOn) {
  world.root.write("downloads/.qn-partial-0123/1.1", "x");
  for (const std::string& held :
       {world.directory(), world.root.path("downloads/.qn-partial-0123")}) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
      const int fd = open(held.c_str(), O_RDONLY | O_DIRECTORY);
      if (flock(fd, LOCK_EX) == 0) (void)!write(ready[1], "x", 1);
      for (;;)
        pause();
    }
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(holderIn([&] { other->removeAll(); }), "process " + std::to_string(child));
    EXPECT_TRUE(std::filesystem::exists(world.directory() + "/manifest.mpd"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
  }
  EXPECT_EQ(holderIn([&] { other->removeAll(); }), "");
  EXPECT_FALSE(std::filesystem::exists(world.root.path("downloads")));
}

TEST_F(Hold, AStartLooksAtWhatOthersDidMeanwhile) {
  ASSERT_TRUE(world.downloader->download(set));
  ASSERT_TRUE(session->serve(session->taskForURL("v/1"), DownloaderWorld::bodyOf("v/1")));
  session->deliverEvents();
  world.downloader->cancel(set);
  set->properties()->setTitle("t");
  ASSERT_TRUE(other->download(otherSet));
  EXPECT_EQ(render(*otherSet), "running selected v:CR a:R downloaded completed 0 failed 0");
  world.serveAll();
  EXPECT_EQ(world.stored(), "a/1 v/1 v/2 ");
  // Everything is there: nothing is fetched again.
  EXPECT_FALSE(world.downloader->download(set));
  EXPECT_EQ(render(*set), "idle selected downloaded v a completed 0 failed 0");
  EXPECT_EQ(set->properties()->numberOfDownloadedQualities(), 2U);
  set->_checkInvariants();
  // What is gone is no longer downloaded, and can be selected.
  otherSet->removeDownloadedQuality(otherSet->movie()->tracks()[1]->qualities()[0]);
  EXPECT_FALSE(world.downloader->download(set));
  EXPECT_EQ(render(*set), "idle selected downloaded v completed 0 failed 0");
  set->selectAllQualities();
  EXPECT_TRUE(world.downloader->download(set));
  EXPECT_EQ(render(*set), "running selected a:R downloaded v completed 0 failed 0");
}

TEST_F(Hold, EndsWithItsDownloaderAndComesBackWithItsTasks) {
  ASSERT_TRUE(world.downloader->download(set));
  session.reset();
  world.kill();  // the application still has the set
  EXPECT_EQ(holderIn([&] { EXPECT_TRUE(other->download(otherSet)); }), "");
  // The tasks of the earlier launch would write where another works by now.
  world.launch();
  EXPECT_TRUE(world.session().runningTasks().empty());
  other->cancel(otherSet);
  set = world.activate();
  set->selectAllQualities();
  ASSERT_TRUE(world.downloader->download(set));
  set.reset();
  world.kill();
  world.launch();
  EXPECT_EQ(world.session().runningTasks().size(), 3U);
  EXPECT_EQ(holderIn([&] { other->download(otherSet); }), "another downloader of this process");
}

}  // namespace
