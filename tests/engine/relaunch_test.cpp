#include <gtest/gtest.h>

#include "engine/QNResourceId.h"
#include "platform/Application.h"
#include "platform/Exception.h"
#include "tests/support/DownloaderWorld.h"

namespace {

using platform::URLSessionTaskState;
using qntest::DownloaderWorld;
using qntest::QualityPlan;
using qntest::readFile;
using qntest::render;

const std::vector<QualityPlan> kMovie = {{QNMediaTypeVideo, "v", {"v/1", "v/2", "v/3"}},
                                         {QNMediaTypeAudio, "a", {"a/1", "a/2"}}};

class Relaunch : public testing::Test {
 protected:
  // A session store with one task, as some earlier launch left it.
  std::shared_ptr<platform::URLSessionDownloadTask> leaveTask(
      const std::string& taskURL, const std::optional<std::string>& description,
      bool running = true, const std::string& header = "") {
    if (!before) {
      before = qntest::ScriptedSession::open(
          world.sessions.store("test"),
          platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("test"),
          {});
    }
    const auto request =
        platform::URLRequest::requestWithURL(platform::URL::URLWithString(taskURL));
    if (!header.empty()) {
      request->setValueForHTTPHeaderField(header, "X-Token");
      request->setValueForHTTPHeaderField("bytes=0-1", "Range");
    }
    const auto task = before->downloadTaskWithRequest(request);
    task->setTaskDescription(description);
    if (running) task->resume();
    return task;
  }

  std::string identity(const std::string& quality, uint64_t index, uint64_t status,
                       const std::string& manifest = DownloaderWorld::url) {
    return QNResourceId(manifest, quality, index, status).serializeToJSON();
  }

  std::shared_ptr<QNMovieDownloadSet> launched() {
    before.reset();
    world.launch();
    return world.downloader->fetchActiveDownloadSetForURL(DownloaderWorld::url);
  }

  DownloaderWorld world;
  std::shared_ptr<qntest::ScriptedSession> before;
};

TEST_F(Relaunch, FindsTheResourceOfEachTaskAndEndsTheOthers) {
  struct Row {
    const char* why;
    std::string url;
    std::optional<std::string> description;
    const char* state;  // of the set; null: none became active
  };
  const std::string idle = "idle selected downloaded completed 0 failed 0";
  const Row rows[] = {
      {"paused", "http://host/movie/v/2", identity("v", 1, 1), "paused selected v:.p. downloaded"},
      {"running", "http://host/movie/v/2", identity("v", 1, 2),
       "running selected v:.R. downloaded"},
      {"idle", "http://host/movie/v/2", identity("v", 1, 0), "idle selected downloaded"},
      {"no status", "http://host/movie/v/2", identity("v", 1, 3), "idle selected downloaded"},
      {"no description", "http://host/movie/v/2", std::nullopt, nullptr},
      {"no JSON", "http://host/movie/v/2", "what", nullptr},
      {"no manifest", "http://host/movie/v/2", "{}", nullptr},
      {"another movie", "http://host/movie/v/2", identity("v", 1, 2, "http://host/other"), nullptr},
      {"no such quality", "http://host/movie/v/2", identity("w", 1, 2), "idle selected downloaded"},
      {"no such index", "http://host/movie/v/2", identity("v", 9, 2), "idle selected downloaded"},
      {"another address", "http://host/movie/v/3", identity("v", 1, 2), "idle selected downloaded"},
      {"cancelled", "http://host/movie/v/2", identity("v", 1, 2), "idle selected downloaded"},
      {"another range", "http://host/movie/v/2", identity("v", 1, 2) + " ", nullptr},
  };
  for (const Row& row : rows) {
    world.storeManifest(kMovie);
    const bool ranged = std::string(row.why) == "another range";
    const auto left =
        leaveTask(row.url, ranged ? identity("v", 1, 2) : row.description, true, ranged ? "t" : "");
    if (std::string(row.why) == "cancelled") left->cancel();
    const auto set = launched();
    const std::string state = ranged ? "idle selected downloaded" : row.state ? row.state : "";
    EXPECT_EQ(set ? render(*set).substr(0, state.size()) : "", state) << row.why;
    const auto tasks = world.session().tasks();
    ASSERT_EQ(tasks.size(), 1U);
    const bool kept = set && set->status() != QNDownloadStatusIdle;
    if (!kept) {
      EXPECT_EQ(tasks[0]->state(), URLSessionTaskState::Canceling) << row.why;
      EXPECT_EQ(tasks[0]->taskDescription(), std::nullopt) << row.why;
    }
    if (set) set->_checkInvariants();
    world.session().deliverEvents();
    world.downloader->removeAll();
    world.session().deliverEvents();
    world.kill();
  }
}

TEST_F(Relaunch, ABadTaskStopsNoOther) {
  world.storeManifest(kMovie);
  world.root.write("downloads/whatever", "no directory");
  leaveTask("http://host/movie/v/1", identity("v", 0, 2));
  leaveTask("http://host/movie/v/1", identity("v", 0, 2));  // the same resource twice
  leaveTask("http://host/movie/x", std::string("\xff\xfe{", 3));
  leaveTask("http://host/movie/a/2", identity("a", 1, 1));
  const auto set = launched();
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(render(*set), "running selected v:R.. a:.p downloaded completed 0 failed 0");
  EXPECT_EQ(world.session().runningTasks().size(), 1U);
}

TEST_F(Relaunch, ACompletedResourceRefusesItsTask) {
  world.storeManifest(kMovie);
  const std::string prefix = world.directory().substr(world.root.path().size() + 1);
  for (const char* name : {"a/1", "a/2", "v/1"})
    world.root.write(prefix + "/" + name, "whole");
  leaveTask("http://host/movie/a/1", identity("a", 0, 2));
  leaveTask("http://host/movie/v/1", identity("v", 0, 2));
  const auto set = launched();
  EXPECT_EQ(render(*set), "idle selected v:C.. downloaded a completed 0 failed 0");
  world.serveAll();
  EXPECT_EQ(readFile(world.directory() + "/a/1"), "whole");
}

TEST_F(Relaunch, TheAddressTellsQualitiesOfOneIdentifierApart) {
  world.storeManifest({{QNMediaTypeVideo, "0", {"v/1", "v/2"}},
                       {QNMediaTypeAudio, "0", {"a/1", "a/2"}},
                       {QNMediaTypeText, "0", {"t/1"}}});
  leaveTask("http://host/movie/a/2", identity("0", 1, 2));
  leaveTask("http://host/movie/t/1", identity("0", 0, 2));
  leaveTask("http://host/movie/x/1", identity("0", 0, 2));
  const auto set = launched();
  EXPECT_EQ(render(*set), "running selected 0:.R 0:R downloaded completed 0 failed 0");
  world.serveAll();
  EXPECT_EQ(readFile(world.directory() + "/a/2"), world.bodyOf("a/2"));
}

TEST_F(Relaunch, LaterSegmentsAreAskedForLikeTheFirst) {
  world.storeManifest({{QNMediaTypeVideo, "v", {"v/1", "v/2"}}});
  world.launch();
  auto set = world.activate();
  world.downloader->setAdditionalHeaders(std::make_shared<QNHeaders>(QNHeaders{{"X-Token", "t"}}));
  set->selectAllQualities();
  set->qualityInfoForQuality(set->selectedQualities()[0])->setParallellDownloads(1);
  ASSERT_TRUE(world.downloader->download(set));
  world.session().taskForURL("v/2")->cancel();  // as if it had never been made
  set.reset();
  world.kill();
  set = launched();
  ASSERT_NE(set, nullptr);
  ASSERT_TRUE(world.session().serve(world.session().taskForURL("v/1"), "body"));
  world.session().deliverEvents();
  const auto next = world.session().taskForURL("v/2");
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->originalRequest()->valueForHTTPHeaderField("X-Token"), "t");
  EXPECT_EQ(next->originalRequest()->valueForHTTPHeaderField("Range"), std::nullopt);
}

TEST_F(Relaunch, HeadersGoWhereTheyWentBefore) {
  const auto token = std::make_shared<QNHeaders>(QNHeaders{{"X-Token", "t"}});
  const auto expectHeaders = [&](size_t count) {
    EXPECT_EQ(world.session().tasks().size(), count);
    for (const auto& task : world.session().tasks()) {
      const auto& url = *task->originalRequest()->url();
      const bool may = url.origin() == "http://host:80" || url.origin() == "http://keys:80";
      const auto sent = task->originalRequest()->valueForHTTPHeaderField("X-Token");
      EXPECT_EQ(sent.has_value(), may) << url.absoluteString();
    }
  };
  world.storeManifest({{QNMediaTypeVideo,
                        "v",
                        {"https://host/1", "http://cdn/2", "http://cdn/3", "http://host:81/4", "5",
                         "http://cdn/6", "http://keys:80/7", "http://host/8"}}});
  world.launch();
  world.downloader->setHeaderOrigins(QNHeaderOrigins{"http://KEYS:80/"});
  world.downloader->setAdditionalHeaders(token);
  world.activate()->selectAllQualities();
  ASSERT_TRUE(world.downloader->download(world.activate()));
  expectHeaders(4);
  world.kill();
  EXPECT_EQ(launched()->headerOrigins(), QNHeaderOrigins{"http://keys:80"});
  // None of the tasks that were left tells the headers: the application does.
  world.downloader->setAdditionalHeaders(token);
  ASSERT_TRUE(world.session().fail(world.session().tasks()[1], -1005, true));
  ASSERT_TRUE(world.session().fail(world.session().tasks()[2], -1005));
  world.session().deliverEvents();
  expectHeaders(4);
  for (const auto& task : world.session().tasks())
    world.session().serve(task, "body");
  world.session().deliverEvents();
  expectHeaders(4);
}

TEST_F(Relaunch, MixedTasksAreBroughtInStep) {
  world.storeManifest(kMovie);
  leaveTask("http://host/movie/v/1", identity("v", 0, 2));
  leaveTask("http://host/movie/v/2", identity("v", 1, 1), false);
  leaveTask("http://host/movie/a/1", identity("a", 0, 1), false);
  const auto set = launched();
  EXPECT_EQ(render(*set), "running selected v:Rp. a:p. downloaded completed 0 failed 0");
  set->resume();  // counts each quality once, whatever its tasks did
  EXPECT_EQ(render(*set), "running selected v:RR. a:R. downloaded completed 0 failed 0");
  set->_checkInvariants();
  world.followRecipe();
  EXPECT_EQ(world.stored(), "a/1 a/2 v/1 v/2 v/3 ");
}

TEST_F(Relaunch, AnApplicationThatFollowsTheRecipeEndsWithEverything) {
  enum { Whole, Partial, Absent, Paused, Running };  // a quality
  enum { Stored, Missing, UnderWay };                // the file that both list
  const std::string prefix = world.directory().substr(world.root.path().size() + 1) + "/";
  for (int row = 0; row < 5 * 5 * 3; ++row) {
    world.storeManifest({{QNMediaTypeVideo, "v", {"init", "v/1", "v/2"}},
                         {QNMediaTypeVideo, "w", {"init", "w/1", "w/2"}}});
    const int shared = row / 25;
    for (const std::string id : {"v", "w"}) {
      const int state = id == "v" ? row % 5 : row / 5 % 5;
      std::vector<std::string> stored;
      if (state == Whole || shared == Stored) stored.push_back("init");
      if (state <= Partial) stored.push_back(id + "/1");
      if (state == Whole) stored.push_back(id + "/2");
      for (const auto& name : stored)
        world.root.write(prefix + name, DownloaderWorld::bodyOf(name));
      if (state < Paused) continue;
      leaveTask("http://host/movie/" + (shared == UnderWay ? "init" : id + "/1"),
                identity(id, shared == UnderWay ? 0 : 1, state == Running ? 2 : 1),
                state == Running);
    }
    // The foreground may be entered while the downloader is made.
    world.sessions.store("test")->beforeTasksAreAsked = [] {
      platform::Application::sharedApplication().enterForeground();
    };
    EXPECT_EQ(launched() != nullptr, row % 5 >= Paused || row / 5 % 5 >= Paused) << "taken back";
    const std::string start = render(*world.activate());
    EXPECT_EQ(start.find("C.."), std::string::npos) << "selected for another's file: " << start;
    const auto set = world.followRecipe();
    EXPECT_EQ(set->properties()->numberOfDownloadedQualities(), 2U) << start << render(*set);
    EXPECT_EQ(world.stored(), "init v/1 v/2 w/1 w/2 ");
    EXPECT_EQ(world.session().tasks().size(), 0U);
    world.downloader->removeAll();
    world.kill();
  }
}

TEST_F(Relaunch, EventsThatWereHeldAreToldAgain) {
  world.storeManifest(kMovie);
  world.launch();
  auto set = world.activate();
  set->selectAllQualities();
  ASSERT_TRUE(world.downloader->download(set));
  ASSERT_TRUE(world.session().serve(world.session().taskForURL("v/1"), world.bodyOf("v/1")));
  ASSERT_TRUE(world.session().fail(world.session().taskForURL("v/2"), -1005, true));
  set.reset();
  world.kill();
  set = launched();
  int handled = 0;
  world.downloader->handleBackgroundEventsWithCompletionHandler([&] { ++handled; });
  EXPECT_EQ(render(*set), "running selected v:RRR a:RR downloaded completed 0 failed 0");
  world.session().deliverEvents();
  EXPECT_EQ(render(*set), "running selected v:CRR a:RR downloaded completed 0 failed 0");
  world.mainQueue->run();
  EXPECT_EQ(handled, 1);
  EXPECT_EQ(world.followRecipe(), set);
  EXPECT_EQ(world.stored(), "a/1 a/2 v/1 v/2 v/3 ");
}

TEST_F(Relaunch, AnUnnamedSessionStartsAnew) {
  world.storeManifest(kMovie);
  const auto make = [&] {
    return QNMovieDownloader::initWithIdentifier(std::nullopt, false, false,
                                                 world.root.path("downloads"));
  };
  world.downloader = make();
  const std::string first = world.session().configuration().identifier;
  world.kill();
  world.downloader = make();
  EXPECT_NE(world.session().configuration().identifier, first);
}

TEST_F(Relaunch, AHeldSessionIsAnError) {
  world.launch();
  EXPECT_THROW(QNMovieDownloader::initWithIdentifier("test", false, false, world.root.path()),
               platform::Exception);
}

// The scene of the kills: everything an application does with a small movie, in one order.
void play(DownloaderWorld& world) {
  auto set = world.activate();
  auto& downloader = *world.downloader;
  set->selectAllQualities();
  downloader.download(set);
  auto& session = world.session();
  const auto taskOf = [&](const char* name) { return session.taskForURL(name); };
  const auto serve = [&](const char* name) {
    session.serve(taskOf(name), DownloaderWorld::bodyOf(name));
    session.deliverEvents();
  };
  serve("v/2");
  // Broken after some bytes, continued from there.
  const std::string body = DownloaderWorld::bodyOf("a/1");
  session.respond(taskOf("a/1"), 200, static_cast<int64_t>(body.size()));
  session.deliver(taskOf("a/1"), body.substr(0, 5));
  session.deliverEvents();
  session.fail(taskOf("a/1"), -1005, true);
  session.deliverEvents();
  serve("a/1");
  downloader.pause(set);
  downloader.resume(set);
  session.respond(taskOf("v/1"), 503, 4);
  session.deliver(taskOf("v/1"), "busy");
  session.deliverEvents();
  serve("a/2");  // the audio is whole
  downloader.cancel(set);
  downloader.download(set);
  serve("v/3");
  serve("v/1");
  session.deliverEvents();
  // Away with the audio, and here again.
  if (set->numberOfDownloadedQualities() != 2) return;
  set->removeDownloadedQuality(set->downloadedQualities()[0]);
  set->selectAllQualities();
  downloader.download(set);
  world.serveAll();
}

TEST_F(Relaunch, AKillAtAnyStepLosesNothing) {
  int64_t steps = 0;
  {
    DownloaderWorld whole;
    whole.storeManifest(kMovie);
    whole.launch();
    const int64_t start = whole.killSwitch->stepsTaken();
    play(whole);
    steps = whole.killSwitch->stepsTaken() - start;
    ASSERT_EQ(whole.stored(), "a/1 a/2 v/1 v/2 v/3 ");
  }
  ASSERT_GT(steps, 50);
  for (int64_t step = 0; step <= steps; ++step) {
    SCOPED_TRACE("killed at step " + std::to_string(step) + " of " + std::to_string(steps));
    // The world of this test's fixture is alive too: this one takes its place.
    DownloaderWorld killed;
    killed.storeManifest(kMovie);
    killed.launch();
    killed.killSwitch->killAfter(step);
    try {
      play(killed);
    } catch (const platform::Exception&) {
      EXPECT_TRUE(killed.killSwitch->isDead()) << "only a ghost may be told that its disk is gone";
    }
    killed.kill();
    killed.killSwitch->disarm();
    killed.launch();
    const auto set = killed.followRecipe();
    ASSERT_NE(set, nullptr);
    ASSERT_EQ(set->numberOfDownloadedQualities(), 2U) << render(*set);
    for (const char* name : {"v/1", "v/2", "v/3", "a/1", "a/2"})
      ASSERT_EQ(readFile(killed.directory() + "/" + name), DownloaderWorld::bodyOf(name)) << name;
    ASSERT_EQ(set->properties()->numberOfDownloadedQualities(), 2U);
    ASSERT_EQ(killed.sessions.store("test")->size(), 0U);
    ASSERT_EQ(killed.session().tasks().size(), 0U);
  }
}

TEST_F(Relaunch, AKillDuringRemovalLeavesNoHalfDownload) {
  for (const bool all : {false, true}) {
    for (int64_t step = 0; step < 12; ++step) {
      DownloaderWorld killed;
      killed.storeManifest(kMovie);
      killed.launch();
      auto set = killed.activate();
      set->selectAllQualities();
      ASSERT_TRUE(killed.downloader->download(set));
      killed.serveAll();
      killed.killSwitch->killAfter(step);
      try {
        all ? killed.downloader->removeAll() : (void)killed.downloader->remove(set);
      } catch (const platform::Exception&) {
        // The disk died under it.
      }
      set.reset();
      killed.kill();
      killed.killSwitch->disarm();
      killed.launch();
      killed.backgroundQueue->run();
      set = killed.activate();
      EXPECT_EQ(killed.downloader->downloadedMovies().size(), set ? 1U : 0U);
      if (set) {
        EXPECT_EQ(set->numberOfDownloadedQualities(), 2U) << "whole or gone, step " << step;
      } else {
        EXPECT_EQ(killed.stored(), "");
      }
    }
  }
}

}  // namespace
