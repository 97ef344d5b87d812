#include <any>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>

#include <gtest/gtest.h>

#include "engine/QNMovieDownloader.h"
#include "engine/QNResourceId.h"
#include "platform/Application.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/host/QNLog.h"
#include "tests/support/DownloaderWorld.h"
#include "tests/support/UserNamespace.h"

namespace {

using platform::URLSessionTaskState;
using qntest::DownloaderWorld;
using qntest::numbered;
using qntest::QualityPlan;
using qntest::readFile;
using qntest::render;

const std::vector<QualityPlan> kMovie = {{QNMediaTypeVideo, "v", {"v/1", "v/2", "v/3"}},
                                         {QNMediaTypeAudio, "a", {"a/1", "a/2"}}};

class Downloader : public testing::Test {
 protected:
  Downloader() {
    QNSetLogTap([](int level) { return level >= QNLogLevelError; },
                [this](int, const std::string& message) {
                  if (message.find("Exception in session event") != std::string::npos)
                    eventFaults += message + "\n";
                });
  }
  ~Downloader() override {
    QNSetLogTap(nullptr, nullptr);
    // What an event throws ends in the log; none of these tests has a reason for it.
    EXPECT_EQ(eventFaults, "");
  }

  // An active set over the usual movie.
  std::shared_ptr<QNMovieDownloadSet> movie(const std::vector<QualityPlan>& qualities = kMovie) {
    world.storeManifest(qualities);
    if (!world.downloader) world.launch();
    return world.activate();
  }

  std::shared_ptr<QNMovieDownloadSet> started(const std::vector<QualityPlan>& qualities = kMovie) {
    auto set = movie(qualities);
    set->selectAllQualities();
    EXPECT_TRUE(world.downloader->download(set));
    world.delegate->take();
    return set;
  }

  std::shared_ptr<QNResourceDownloadInfo> resource(const std::shared_ptr<QNMovieDownloadSet>& set,
                                                   size_t quality, size_t index) {
    return set->selectedQualitiesInfo().at(quality)->resources().at(index);
  }

  platform::Exception thrownBy(const std::function<void()>& call) {
    try {
      call();
    } catch (const platform::Exception& exception) {
      return exception;
    }
    return {"none", ""};
  }

  // What the block of a fetch was called with, once.
  struct Fetched {
    int calls = 0;
    std::shared_ptr<QNMovieDownloadSet> set;
    platform::ErrorPtr error;
  };
  std::shared_ptr<Fetched> fetch(const std::string& url = DownloaderWorld::url) {
    auto fetched = std::make_shared<Fetched>();
    world.downloader->fetchDownloadSetForURL(url, [fetched](const auto& set, const auto& error) {
      ++fetched->calls;
      fetched->set = set;
      fetched->error = error;
    });
    return fetched;
  }

  std::string eventFaults;
  DownloaderWorld world;
};

// Identity

TEST_F(Downloader, NamesADownloadByHostPathAndQuery) {
  world.launch();
  const auto id = [&](const char* url) { return world.downloader->downloadIdWithURL(url); };
  const std::string usual = id("http://example.org/a/m.mpd?x=1");
  EXPECT_EQ(usual.size(), 50U);
  for (const char* same :
       {"https://Example.ORG:8080/a/m.mpd?x=1", "http://u:p@example.org/a/m.mpd?x=1#f"})
    EXPECT_EQ(id(same), usual) << same;
  for (const char* other : {"http://example.org/A/m.mpd?x=1", "http://example.org/a/m.mpd?X=1",
                            "http://example.com/a/m.mpd?x=1", "http://example.org/a/m.mpd"})
    EXPECT_NE(id(other), usual) << other;
  // Stable between launches and machines: XXH3 64, seed 0.
  EXPECT_EQ(id("http://h"), "7045c205f5ef6a66-0000000000000000-0000000000000000");
  EXPECT_EQ(id("not a URL at all\n"), "0000000000000000-0000000000000000-0000000000000000");
  // A directory with the older form of the name stays in use, whatever the query.
  const std::string older = usual.substr(0, 33);
  world.root.write("downloads/" + older + "/manifest.mpd", "");
  EXPECT_EQ(id("http://example.org/a/m.mpd?x=1"), older);
  EXPECT_EQ(id("http://example.org/a/m.mpd?x=2"), older);
  EXPECT_EQ(id("http://example.org/b/m.mpd"), id("http://example.org/b/m.mpd").substr(0, 50));
}

TEST_F(Downloader, FindsTheStoredManifestWhateverItIsCalled) {
  world.launch();
  struct Row {
    std::vector<std::pair<std::string, std::string>> files;
    const char* name;
  };
  const std::string properties =
      R"({"QNDownloadSetSourceURL":"u","QNDownloadSetManifestName":"Manifest.ism"})";
  const std::string late = std::string(1024, ' ') + "MPD";
  const std::string cut = "MPD" + std::string(1020, ' ') + "\xc3\xa9";  // after 1024 bytes
  const Row rows[] = {
      {{}, "manifest.mpd"},
      {{{"manifest.mpd", ""}, {"stream.mpd", ""}}, "manifest.mpd"},
      {{{QNMoviePropertiesFileName, properties}, {"Manifest.ism", "x"}, {"other", "MPD"}},
       "Manifest.ism"},
      {{{QNMoviePropertiesFileName, properties}}, "manifest.mpd"},
      {{{QNMoviePropertiesFileName, properties}, {"other", "MPD"}}, "other"},
      {{{"stream.mpd", ""}, {"a.xml", "MPD"}}, "stream.mpd"},
      {{{"index", "<MPD>"}, {"x", "nothing"}}, "index"},
      {{{"a.xml", "MPD"}, {"a.mp4", "MPD"}, {"a.json", "MPD"}}, "manifest.mpd"},
      {{{"index", late}}, "manifest.mpd"},
      {{{"index", cut}}, "index"},
      {{{"segment", std::string("\0\0\0\x18styp\xff", 9) + cut}}, "manifest.mpd"},
      {{{"directory.mpd/file", "x"}}, "manifest.mpd"},
      // What a write that was killed left behind is no manifest.
      {{{".qn-1-2-3.tmp", "<MPD>"}}, "manifest.mpd"},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    const std::string id = std::to_string(i);
    for (const auto& [name, text] : rows[i].files)
      world.root.write("downloads/" + id + "/" + name, text);
    EXPECT_EQ(world.downloader->findManifestLocalNameForDownloadId(id), rows[i].name) << i;
  }
}

// Activation and fetching

TEST_F(Downloader, ActivatesWhatIsStoredAndNothingElse) {
  world.launch();
  EXPECT_EQ(world.activate(), nullptr);
  EXPECT_TRUE(world.downloader->activeDownloadSets().empty());
  EXPECT_TRUE(world.downloader->downloadedMovies().empty());
  const auto set = movie();
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(world.activate(), set);
  EXPECT_EQ(world.downloader->fetchActiveDownloadSetForURL(world.url), set);
  EXPECT_EQ(world.downloader->activateDownloadSet(set), set);
  EXPECT_EQ(set->sourceURL(), world.url);
  EXPECT_EQ(set->playlist()->url(), world.url);
  EXPECT_EQ(set->downloadPath(), world.directory());
  EXPECT_EQ(world.downloader->activeDownloadSets(), QNMovieDownloader::Sets{set});
  const auto movies = world.downloader->downloadedMovies();
  ASSERT_EQ(movies.size(), 1U);
  EXPECT_EQ(movies[0], set->properties()) << "one object for a directory";
  EXPECT_TRUE(world.shared.waiting().empty());
}

TEST_F(Downloader, GoesOnUnderTheStoredURL) {
  world.storeManifest(kMovie);
  world.launch();
  ASSERT_EQ(world.activate()->sourceURL(), world.url);
  world.kill();
  world.launch();
  const auto set = world.downloader->activateDownloadSetForURL(
      "https://u@HOST:81/movie/manifest.mpd?token=1#t=3");
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(set->sourceURL(), world.url);
  // Text that is no UTF-8 cannot be written down; encoded it is the same URL, and the same
  // download.
  const std::string latin = "http://host/movie/manifest.mpd?n=\xe9t\xc3\xa9";
  const auto named = world.downloader->storeDownloadSetForURL(latin, qntest::makePlaylist(kMovie),
                                                              nullptr, nullptr);
  EXPECT_EQ(named->sourceURL(), "http://host/movie/manifest.mpd?n=%E9t\xc3\xa9");
  EXPECT_EQ(named->properties()->sourceURL(), named->sourceURL());
  EXPECT_EQ(named->playlist()->url(), named->sourceURL());
  EXPECT_EQ(world.downloader->activateDownloadSetForURL(latin), named);
  const QNResourceId id(named->sourceURL(), "v", 0, 2);
  EXPECT_EQ(QNResourceId::resourceIdWithJSONString(id.serializeToJSON())->manifestURL(),
            named->sourceURL());
}

TEST_F(Downloader, FetchesAManifestOnceAndStoresItUnderTheDefaultName) {
  world.launch();
  const auto first = fetch();
  const auto second = fetch();
  EXPECT_EQ(first->calls, 0);
  ASSERT_EQ(world.shared.waiting(), (std::vector<std::string>{world.url, world.url}));
  const std::string manifest = qntest::makeMPD(kMovie);
  ASSERT_TRUE(world.shared.answer(manifest));
  ASSERT_TRUE(world.shared.answer(manifest));
  ASSERT_NE(first->set, nullptr) << render(first->error);
  EXPECT_EQ(first->set, second->set) << "two fetches at a time end with one set";
  EXPECT_EQ(readFile(world.directory() + "/manifest.mpd"), manifest);
  EXPECT_EQ(first->set->playlist()->url(), world.url);
  const auto third = fetch();
  EXPECT_EQ(third->set, first->set) << "at once, without the network";
  world.kill();
  first->set.reset();
  second->set.reset();
  third->set.reset();
  world.launch();
  EXPECT_NE(fetch()->set, nullptr) << "at once, from the stored manifest";
  EXPECT_TRUE(world.shared.waiting().empty());
}

TEST_F(Downloader, ReportsWhyAFetchFailedAndStoresNothing) {
  struct Row {
    std::function<bool(qntest::ScriptedSharedSession&)> end;
    const char* error;
  };
  const std::string noMovie =
      "<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" "
      "profiles=\"urn:mpeg:dash:profile:isoff-main:2011\" minBufferTime=\"PT2S\"></MPD>";
  const Row rows[] = {
      {[](auto& shared) { return shared.fail(-1004); }, "NSURLErrorDomain -1004"},
      {[](auto& shared) { return shared.answer("<html>", 404); }, "NSErrorQNDownloader -101"},
      {[](auto& shared) { return shared.answerWithNothing(); }, "NSErrorQNDownloader -101"},
      {[&](auto& shared) { return shared.answer(noMovie); }, "NSErrorQNDownloader -101"},
  };
  for (const Row& row : rows) {
    world.launch();
    const auto fetched = fetch();
    ASSERT_TRUE(row.end(world.shared));
    EXPECT_EQ(fetched->calls, 1) << row.error;
    EXPECT_EQ(fetched->set, nullptr) << row.error;
    EXPECT_EQ(render(fetched->error), row.error);
    EXPECT_FALSE(std::filesystem::exists(world.directory())) << row.error;
    world.kill();
  }
}

TEST_F(Downloader, ReportsAStoredManifestThatIsNotUsable) {
  world.root.write(world.directory().substr(world.root.path().size() + 1) + "/manifest.mpd",
                   "what");
  world.launch();
  EXPECT_EQ(world.activate(), nullptr);
  const auto fetched = fetch();
  EXPECT_EQ(fetched->calls, 1);
  EXPECT_EQ(render(fetched->error), "NSErrorQNDownloader -101");
  EXPECT_TRUE(world.shared.waiting().empty());
}

// What is there cannot be read now; that says nothing of what is in it.
TEST_F(Downloader, MakesNoSetOfADownloadThatCannotBeRead) {
  world.storeManifest(kMovie);
  const auto stored = world.directory().substr(world.root.path().size() + 1) + "/";
  const std::string text = R"({"QNDownloadSetSourceURL":")" + std::string(world.url) +
                           R"(","QNDownloadSetManifestName":"manifest.mpd","Own":1})";
  world.root.write(stored + QNMoviePropertiesFileName, text);
  world.launch();
  for (const int errnum : {EACCES, EMFILE, EIO}) {
    world.files.setFault([&](const auto& method, const std::string& path) {
      const bool isFile = path.ends_with(QNMoviePropertiesFileName);
      return method == "contentsAtPath" && isFile ? errnum : 0;
    });
    EXPECT_EQ(world.activate(), nullptr);
    const auto error = fetch()->error;
    ASSERT_NE(error, nullptr) << errnum;
    EXPECT_EQ(render(std::any_cast<platform::ErrorPtr>(error->userInfo().at(QNUnderlyingErrorKey))),
              "NSPOSIXErrorDomain " + std::to_string(errnum));
    platform::ErrorPtr refused;
    const auto other = std::make_shared<const platform::Data>(3);
    EXPECT_EQ(world.downloader->storeDownloadSetForURL(world.url, qntest::makePlaylist(kMovie),
                                                       other, &refused),
              nullptr);
    EXPECT_NE(refused, nullptr);
    world.files.setFault(nullptr);
    EXPECT_EQ(readFile(world.directory() + "/" + QNMoviePropertiesFileName), text);
    EXPECT_EQ(readFile(world.directory() + "/manifest.mpd"), qntest::makeMPD(kMovie));
    EXPECT_EQ(world.stored(), "");
  }
  ASSERT_NE(world.activate(), nullptr);
  EXPECT_EQ(world.activate()->properties()->objectForKey("Own"), platform::JSON(1));
}

TEST_F(Downloader, ReportsAManifestThatCannotBeStored) {
  world.launch();
  for (const std::string method : {"createDirectory", "writeAtomically"}) {
    world.files.setFault(
        [&](const auto& called, const auto&) { return called == method ? ENOSPC : 0; });
    const auto fetched = fetch();
    ASSERT_TRUE(world.shared.answer(qntest::makeMPD(kMovie)));
    ASSERT_NE(fetched->error, nullptr);
    EXPECT_EQ(fetched->error->localizedDescription(), method == "createDirectory"
                                                          ? "Failed to create download directory"
                                                          : "Failed to write manifest to file");
    const auto cause =
        std::any_cast<platform::ErrorPtr>(fetched->error->userInfo().at(QNUnderlyingErrorKey));
    EXPECT_EQ(render(cause), "NSPOSIXErrorDomain " + std::to_string(ENOSPC));
    EXPECT_TRUE(world.downloader->activeDownloadSets().empty());
  }
  const auto bytes = std::make_shared<const platform::Data>(3);
  world.files.setFault(
      [](const auto& called, const auto&) { return called == "createDirectory" ? EACCES : 0; });
  const auto noDirectory =
      thrownBy([&] { QNMovieDownloader::_saveManifest(bytes, world.url, world.root.path("new")); });
  EXPECT_EQ(noDirectory.name(), "QNMovieDownloaderException");
  EXPECT_EQ(noDirectory.reason(), "Failed to create download directory");
  EXPECT_EQ(render(std::any_cast<platform::ErrorPtr>(noDirectory.userInfo().at("NSError"))),
            "NSPOSIXErrorDomain " + std::to_string(EACCES));
  world.files.setFault(
      [](const auto& called, const auto&) { return called == "writeAtomically" ? EACCES : 0; });
  const auto noFile =
      thrownBy([&] { QNMovieDownloader::_saveManifest(bytes, world.url, world.root.path()); });
  EXPECT_EQ(noFile.reason(), "Failed to write manifest to file");
  EXPECT_TRUE(noFile.userInfo().empty());
}

TEST_F(Downloader, AFetchOutlivesItsDownloader) {
  world.launch();
  const auto fetched = fetch();
  world.kill();
  ASSERT_TRUE(world.shared.answer(qntest::makeMPD(kMovie)));
  EXPECT_EQ(fetched->calls, 1);
  EXPECT_EQ(render(fetched->error), "NSURLErrorDomain -999");
  EXPECT_FALSE(std::filesystem::exists(world.directory()));
}

TEST_F(Downloader, ABlockThatThrowsEndsNothing) {
  world.launch();
  int calls = 0;
  world.downloader->fetchDownloadSetForURL(world.url, [&](const auto&, const auto&) {
    ++calls;
    throw std::runtime_error("of its own");
  });
  ASSERT_TRUE(world.shared.answer(qntest::makeMPD(kMovie)));
  EXPECT_EQ(calls, 1);
}

// Control

TEST_F(Downloader, ControlsSetsAndSaysWhetherItDid) {
  const auto set = movie();
  auto& downloader = *world.downloader;
  set->selectAllQualities();
  EXPECT_FALSE(downloader.pause(set));
  EXPECT_FALSE(downloader.resume(set));
  EXPECT_FALSE(downloader.cancel(set));
  EXPECT_TRUE(downloader.download(set));
  EXPECT_FALSE(downloader.download(set));
  EXPECT_TRUE(downloader.resume(set)) << "running already";
  EXPECT_TRUE(downloader.pause(set));
  EXPECT_TRUE(downloader.pause(set)) << "paused already";
  EXPECT_EQ(world.delegate->take(), "status running\nstatus paused\n");
  EXPECT_TRUE(downloader.resume(set));
  EXPECT_TRUE(downloader.cancel(set));
  EXPECT_FALSE(downloader.cancel(set));
  EXPECT_EQ(world.delegate->take(), "status running\nstatus idle\n");
  EXPECT_EQ(downloader.activeDownloadSets().size(), 1U);
}

TEST_F(Downloader, EndsItsBackgroundTasksWhereItActs) {
  const auto set = movie();
  set->selectAllQualities();
  auto& application = platform::Application::sharedApplication();
  std::string told;
  application.setBackgroundTaskWatcher([&](const std::string& name, auto change) {
    const std::string prefix = "QNMovieDownloader: ";
    EXPECT_TRUE(name.starts_with(prefix)) << name;
    told += "+-!"[static_cast<int>(change)] + name.substr(prefix.size()) + " ";
  });
  const auto toldBy = [&](const std::function<void()>& call) {
    told.clear();
    try {
      call();
    } catch (const platform::Exception&) {
      told += "threw ";
    }
    return told;
  };
  auto& downloader = *world.downloader;
  EXPECT_EQ(toldBy([&] { downloader.pause(set); }), "+Pause download ");
  EXPECT_EQ(toldBy([&] { downloader.resume(set); }), "+Resume download ");
  EXPECT_EQ(toldBy([&] { downloader.cancel(set); }), "+Cancel download ");
  EXPECT_EQ(toldBy([&] { downloader.download(set); }), "+Initiate download -Initiate download ");
  EXPECT_EQ(toldBy([&] { downloader.pause(set); }), "+Pause download -Pause download ");
  EXPECT_EQ(toldBy([&] { downloader.resume(set); }), "+Resume download -Resume download ");
  EXPECT_EQ(toldBy([&] { downloader.cancel(set); }), "+Cancel download -Cancel download ");
  EXPECT_EQ(toldBy([&] { downloader.pauseAll(); }), "+Pause all -Pause all ");
  EXPECT_EQ(toldBy([&] { downloader.resumeAll(); }), "+Resume all -Resume all ");
  EXPECT_EQ(toldBy([&] { downloader.cancelAll(); }), "+Cancel all -Cancel all ");
  EXPECT_EQ(toldBy([&] { downloader.handleEnterForeground(); }), "+Refresh all ");
  EXPECT_EQ(toldBy([&] { world.session().deliverEvents(); }), "-Refresh all ");
  EXPECT_EQ(toldBy([&] { downloader.remove(set); }), "+Remove download -Remove download ");
  EXPECT_EQ(toldBy([&] { downloader.download(set); }), "+Initiate download threw ");
  EXPECT_EQ(toldBy([&] { downloader.removeAll(); }), "+Remove all -Remove all ");
  // What nobody ended expires.
  EXPECT_EQ(toldBy([&] { world.backgroundQueue->advance(std::chrono::minutes(1)); }),
            "!Pause download !Resume download !Cancel download !Initiate download ");
  application.setBackgroundTaskWatcher(nullptr);
}

TEST_F(Downloader, RefusesSetsThatItDoesNotOwn) {
  const auto set = movie();
  ASSERT_TRUE(world.downloader->remove(set));
  auto& downloader = *world.downloader;
  using Operation = bool (QNMovieDownloader::*)(const QNMovieDownloader::Set&);
  for (const Operation operation :
       {&QNMovieDownloader::download, &QNMovieDownloader::pause, &QNMovieDownloader::resume,
        &QNMovieDownloader::cancel, &QNMovieDownloader::remove}) {
    const auto exception = thrownBy([&] { (downloader.*operation)(set); });
    EXPECT_EQ(exception.name(), "QNMovieDownloaderException");
    EXPECT_EQ(exception.reason(), "DownloadSet is not owned by this instance");
  }
  // What lies under another path is another download.
  downloader.setDownloadPath(world.root.path("elsewhere"));
  const auto fetched = fetch();
  ASSERT_TRUE(world.shared.answer(qntest::makeMPD(kMovie)));
  EXPECT_EQ(thrownBy([&] { downloader.remove(set); }).name(), "QNMovieDownloaderException");
  EXPECT_EQ(downloader.fetchActiveDownloadSetForURL(world.url), fetched->set);
}

TEST_F(Downloader, RemovesADownloadWithAllItsFiles) {
  const auto set = started();
  world.serveAll();
  EXPECT_EQ(world.stored(), "a/1 a/2 v/1 v/2 v/3 ");
  set->removeDownloadedQuality(set->downloadedQualities()[0]);
  set->selectAllQualities();
  ASSERT_TRUE(world.downloader->download(set));
  world.delegate->take();
  ASSERT_TRUE(world.downloader->remove(set));
  EXPECT_EQ(world.delegate->take(), "status idle\n") << "a running one is cancelled first";
  EXPECT_FALSE(std::filesystem::exists(world.directory()));
  EXPECT_TRUE(std::filesystem::is_empty(world.root.path("downloads")));
  EXPECT_EQ(world.downloader->fetchActiveDownloadSetForURL(world.url), nullptr);
  EXPECT_EQ(world.activate(), nullptr);
  // What an application still holds of it is inert.
  EXPECT_FALSE(set->downloadWithAdditionalHeaders(nullptr));
  world.serveAll();
  EXPECT_FALSE(std::filesystem::exists(world.directory()));
}

TEST_F(Downloader, TellsWhatKeepsADownloadFromBeingRemoved) {
  const auto set = movie();
  world.files.setFault(
      [](const auto& method, const auto&) { return method == "removeItem" ? EACCES : 0; });
  const auto one = thrownBy([&] { world.downloader->remove(set); });
  EXPECT_EQ(one.reason(), "Failed to remove files for DownloadSet");
  EXPECT_EQ(render(std::any_cast<platform::ErrorPtr>(one.userInfo().at("NSError"))),
            "NSPOSIXErrorDomain " + std::to_string(EACCES));
  EXPECT_EQ(world.downloader->fetchActiveDownloadSetForURL(world.url), set);
  const auto all = thrownBy([&] { world.downloader->removeAll(); });
  EXPECT_EQ(all.reason(), "Failed to remove all downloader files");
  EXPECT_EQ(render(std::any_cast<platform::ErrorPtr>(all.userInfo().at("NSError"))),
            "NSPOSIXErrorDomain " + std::to_string(EACCES));
  // Another launch may delete what is on its way out, and be faster.
  world.files.setFault([](const auto& method, const auto& path) {
    return method == "removeItem" && path.find("/.qn-removed/") != std::string::npos ? ENOENT : 0;
  });
  EXPECT_TRUE(world.downloader->remove(movie()));
}

TEST_F(Downloader, ARemovedSetLeavesTheOneInItsPlaceAlone) {
  const auto old = started();
  auto held = old;
  std::shared_ptr<QNMovieDownloadSet> fresh;
  world.delegate->react = [&](const auto& told, const std::string& line) {
    if (fresh || line != "status idle") return;
    held.reset();
    world.downloader->remove(told);
    fresh = movie();
    fresh->selectAllQualities();
    EXPECT_TRUE(world.downloader->download(fresh));
  };
  // While it is being removed its delegate removes it, and starts it anew.
  EXPECT_TRUE(world.downloader->remove(held));
  EXPECT_EQ(world.downloader->fetchActiveDownloadSetForURL(world.url), fresh);
  world.serveAll();
  old->removeAllDownloadedQualities();
  EXPECT_EQ(world.stored(), "a/1 a/2 v/1 v/2 v/3 ");
  // The identifier says what is removed: nothing of the other goes on.
  fresh->removeAllDownloadedQualities();
  fresh->selectAllQualities();
  ASSERT_TRUE(world.downloader->download(fresh));
  EXPECT_TRUE(world.downloader->remove(old));
  EXPECT_EQ(fresh->status(), QNDownloadStatusIdle);
  EXPECT_FALSE(fresh->downloadWithAdditionalHeaders(nullptr));
  world.serveAll();
  EXPECT_FALSE(std::filesystem::exists(world.directory()));
}

TEST_F(Downloader, WhatADelegateAsksForDuringARemovalComesAfterIt) {
  for (const bool all : {false, true}) {
    const auto old = started();
    std::shared_ptr<Fetched> fetched;
    world.delegate->react = [&](const auto&, const std::string&) {
      platform::ErrorPtr error;
      const auto playlist = qntest::makePlaylist(kMovie);
      EXPECT_FALSE(world.downloader->storeDownloadSetForURL(world.url, playlist, nullptr, &error));
      EXPECT_EQ(error ? error->localizedDescription() : "", "The download is being removed");
      fetched = fetch();
    };
    all ? world.downloader->removeAll() : (void)world.downloader->remove(old);
    world.delegate->react = nullptr;
    ASSERT_TRUE(world.shared.answer(qntest::makeMPD(kMovie))) << "it has to be fetched anew";
    fetched->set->selectAllQualities();
    EXPECT_TRUE(world.downloader->download(fetched->set));
    world.downloader->removeAll();
  }
}

TEST_F(Downloader, ListsWhatIsStoredWithoutWaitingForTheLock) {
  const auto set = movie();
  std::future<size_t> listed;
  bool waited = true;
  {
    platform::RecursiveLock lock(*set->mutex());
    listed = std::async(std::launch::async, [&] {
      const std::string id = world.downloader->downloadIdWithURL(world.url);
      EXPECT_EQ(world.downloader->findManifestLocalNameForDownloadId(id), "manifest.mpd");
      return world.downloader->downloadedMovies().size();
    });
    waited = listed.wait_for(std::chrono::minutes(1)) != std::future_status::ready;
  }
  EXPECT_FALSE(waited);
  EXPECT_EQ(listed.get(), 1U);
}

TEST_F(Downloader, RemovesEverythingAlsoWhatWasNeverActive) {
  world.root.write("downloads/other/manifest.mpd", "x");
  world.root.write("downloads/other/QNMovieDownloadSetProperties.json", "{}");
  const auto set = started();
  world.delegate->react = [&](const auto& told, const std::string&) {
    world.downloader->remove(told);
    EXPECT_EQ(movie(), nullptr) << "nor what a delegate brings back meanwhile";
  };
  world.downloader->removeAll();
  EXPECT_EQ(world.delegate->take(), "status idle\n");
  EXPECT_FALSE(std::filesystem::exists(world.root.path("downloads")));
  EXPECT_TRUE(world.downloader->activeDownloadSets().empty());
  world.downloader->removeAll();  // nothing is there: no failure
}

TEST_F(Downloader, RemovesAllOfARootThatHasToStay) {
  qntest::TempDirectory elsewhere;
  const auto removeAll = [&] {
    elsewhere.write("strange", "x");
    const auto set = started();
    EXPECT_NO_THROW(world.downloader->removeAll());
    EXPECT_TRUE(std::filesystem::is_empty(world.root.path("downloads")));
    EXPECT_TRUE(world.downloader->activeDownloadSets().empty());
  };
  std::filesystem::create_directory_symlink(elsewhere.path(), world.root.path("downloads"));
  removeAll();
  EXPECT_TRUE(std::filesystem::is_symlink(world.root.path("downloads")));
  std::filesystem::remove(world.root.path("downloads"));
  std::filesystem::create_directory(world.root.path("downloads"));
  EXPECT_NE(qntest::runInUserNamespace([&] {
              qntest::mountTmpfs(world.root.path("downloads"), 1 << 20);
              removeAll();
            }),
            false);
}

TEST_F(Downloader, WhatARemovalTookIsGoneAndTheRestIsUsable) {
  const auto gone = started();
  const std::string url = "http://host/movie/other.mpd";
  const auto kept = world.downloader->storeDownloadSetForURL(
      url, qntest::makePlaylist({{QNMediaTypeVideo, "w", {"w/1"}}}),
      std::make_shared<const platform::Data>(3), nullptr);
  // First a download resists, then nothing but the root.
  for (const std::string& resisting : {kept->downloadPath(), world.root.path("downloads")}) {
    world.files.setFault([&](const auto& method, const std::string& path) {
      const bool isMove = method == "moveItem" && resisting == kept->downloadPath();
      return path == resisting || (isMove && path.find(kept->downloadId()) != std::string::npos)
                 ? EACCES
                 : 0;
    });
    EXPECT_EQ(thrownBy([&] { world.downloader->removeAll(); }).reason(),
              "Failed to remove all downloader files");
    world.files.setFault(nullptr);
    EXPECT_FALSE(gone->downloadWithAdditionalHeaders(nullptr))
        << "nothing makes its directory again";
    if (resisting != kept->downloadPath()) continue;
    EXPECT_EQ(world.downloader->activeDownloadSets(), QNMovieDownloader::Sets{kept});
    kept->selectAllQualities();
    EXPECT_TRUE(world.downloader->download(kept));
  }
  EXPECT_TRUE(world.downloader->activeDownloadSets().empty());
  EXPECT_FALSE(std::filesystem::exists(world.directory()));
}

TEST_F(Downloader, ControlsAllOfItsSets) {
  const auto set = started();
  world.downloader->pauseAll();
  world.downloader->pauseAll();
  world.downloader->resumeAll();
  world.downloader->cancelAll();
  EXPECT_EQ(world.delegate->take(), "status paused\nstatus running\nstatus idle\n");
}

TEST_F(Downloader, SendsItsHeadersWithEveryRequest) {
  const auto set = movie();
  set->selectAllQualities();
  world.downloader->setAdditionalHeaders(std::make_shared<QNHeaders>(QNHeaders{{"X-Token", "t"}}));
  // A limit that is none, or that the next launch would not know of, starts nothing.
  world.files.setFault([](const auto&, const auto&) { return ENOSPC; });
  for (const auto& origins : {QNHeaderOrigins{"http://h/path"}, QNHeaderOrigins()}) {
    world.downloader->setHeaderOrigins(origins);
    EXPECT_NE(thrownBy([&] { world.downloader->download(set); }).name(), "none");
  }
  EXPECT_TRUE(world.session().tasks().empty());
  world.files.setFault(nullptr);
  world.downloader->download(set);
  for (const auto& task : world.session().tasks())
    EXPECT_EQ(task->originalRequest()->valueForHTTPHeaderField("X-Token"), "t");
}

TEST_F(Downloader, ConfiguresItsSession) {
  world.launch();
  const auto& named = world.session().configuration();
  EXPECT_EQ(named.identifier, "test");
  EXPECT_TRUE(named.sessionSendsLaunchEvents);
  EXPECT_FALSE(named.allowsCellularAccess || named.discretionary || named.ephemeral);
  EXPECT_EQ(named.partialDirectory, world.root.path("downloads"));
  const auto other = QNMovieDownloader::initWithIdentifier(
      std::nullopt, true, true, world.root.path(), [](auto& configuration) {
        configuration.identifier = "something else";
        configuration.allowsCellularAccess = false;
        configuration.stateDirectory = "/state";
      });
  const auto& unnamed = world.session().configuration();
  EXPECT_TRUE(unnamed.identifier.starts_with("QNMovieDownloader/")) << unnamed.identifier;
  EXPECT_TRUE(unnamed.allowsCellularAccess && unnamed.discretionary && unnamed.ephemeral);
  EXPECT_EQ(unnamed.stateDirectory, "/state");
  EXPECT_TRUE(other->allowsCellularAccess() && other->discretionary());
}

// Events

TEST_F(Downloader, DownloadsEverythingThatIsSelected) {
  const auto set = started();
  world.serveAll();
  EXPECT_EQ(world.stored(), "a/1 a/2 v/1 v/2 v/3 ");
  for (const char* name : {"v/1", "v/2", "v/3", "a/1", "a/2"})
    EXPECT_EQ(readFile(world.directory() + "/" + name), world.bodyOf(name));
  EXPECT_EQ(world.delegate->take(), "quality v none\nquality a none\nstatus idle\ncomplete none\n");
  EXPECT_EQ(set->properties()->numberOfDownloadedQualities(), 2U);
  EXPECT_EQ(set->properties()->numberOfDownloadedVideoQualities(), 1U);
  EXPECT_EQ(set->properties()->downloadedQualityIdentifiers(),
            (std::vector<std::string>{"a", "v"}));
  EXPECT_EQ(world.sessions.store("test")->size(), 0U);
}

TEST_F(Downloader, TurnsAStatusIntoAnErrorAtTheFirstReport) {
  struct Row {
    int status;
    const char* body;
    const char* state;  // of the resource
    const char* message;
  };
  const Row rows[] = {
      {404, "sorry", "idle 0/2666~ failed 404 completed", "not found"},
      {404, "", "idle 0/2666~ failed 404 completed", "not found"},
      {500, "sorry", "running 0/2666~ reactivated 1 failed 500", "internal server error"},
      {599, "", "running 0/2666~ reactivated 1 failed 599", "Unknown Error"},
      {204, "", "running 0/2666~ reactivated 1 failed 204", "no content"},
  };
  for (const Row& row : rows) {
    const auto set = started();
    const auto failing = resource(set, 0, 0);
    const auto task = failing->downloadTask();
    const std::string body = row.body;
    ASSERT_TRUE(world.session().respond(task, row.status, static_cast<int64_t>(body.size())));
    if (!body.empty()) {
      ASSERT_TRUE(world.session().deliver(task, body));
    } else {
      ASSERT_TRUE(world.session().finish(task));
    }
    world.session().deliverEvents();
    EXPECT_EQ(render(*failing), row.state) << row.status;
    ASSERT_NE(failing->error(), nullptr);
    EXPECT_EQ(failing->error()->domain(), "QNDownloadHTTPErrorDomain");
    EXPECT_EQ(failing->error()->stringForKey("QNStatusMessage"), row.message);
    EXPECT_EQ(world.stored(), "");
    world.downloader->removeAll();
    world.delegate->take();
  }
}

TEST_F(Downloader, ContinuesABrokenTransferFromItsResumeData) {
  const auto set = started();
  const auto broken = resource(set, 0, 0);
  const std::string body = world.bodyOf("v/1");
  const auto first = broken->downloadTask();
  auto& session = world.session();
  ASSERT_TRUE(session.respond(first, 200, 20) && session.deliver(first, body.substr(0, 8)));
  ASSERT_TRUE(session.fail(first, -1005, true));
  session.deliverEvents();
  const auto second = broken->downloadTask();
  ASSERT_NE(second, first);
  EXPECT_EQ(second->state(), URLSessionTaskState::Running);
  ASSERT_TRUE(session.respond(second, 206, 12) && session.deliver(second, body.substr(8)));
  ASSERT_TRUE(session.finish(second));
  session.deliverEvents();
  EXPECT_EQ(readFile(world.directory() + "/v/1"), body);
}

TEST_F(Downloader, GivesUpAResourceAfterFiveAttemptsAndGoesOnWithTheRest) {
  const auto set = started();
  const auto failing = resource(set, 0, 0);
  for (int attempt = 1; attempt <= 5; ++attempt) {
    ASSERT_EQ(failing->status(), QNDownloadStatusRunning) << attempt;
    ASSERT_TRUE(world.session().fail(failing->downloadTask(), -1001));
    world.session().deliverEvents();
  }
  EXPECT_TRUE(failing->completed());
  world.serveAll();
  EXPECT_EQ(world.delegate->take(),
            "quality v QNDownloadErrorDomain -1001\nquality a none\nstatus idle\n"
            "complete QNDownloadErrorDomain -1002\n");
  EXPECT_EQ(render(*set), "idle selected v:.CC downloaded a completed 0 failed 0");
  ASSERT_TRUE(world.downloader->download(set)) << "retries exactly the failures";
  world.serveAll();
  EXPECT_EQ(world.stored(), "a/1 a/2 v/1 v/2 v/3 ");
}

TEST_F(Downloader, TellsWhatKeepsAFileFromItsPlace) {
  struct Row {
    const char* method;    // the file call that fails, or null
    const char* obstacle;  // what lies in the way, below the download directory
    int errnum;
  };
  const Row rows[] = {
      {"moveItem", nullptr, ENOSPC},
      {"createDirectory", nullptr, EROFS},
      {nullptr, "v", ENOTDIR},     // a file where a directory should be
      {nullptr, "v/1/x", EISDIR},  // a directory where the file should be
  };
  for (const Row& row : rows) {
    const auto set = started();
    if (row.obstacle) {
      const std::string prefix = world.directory().substr(world.root.path().size() + 1);
      world.root.write(prefix + "/" + row.obstacle, "kept");
    }
    world.files.setFault([&](const std::string& method, const std::string& path) {
      return row.method && method == row.method && path.find("/v") != std::string::npos ? row.errnum
                                                                                        : 0;
    });
    world.serveAll();
    world.files.setFault(nullptr);
    const auto failures =
        std::any_cast<QNQualityErrors>(world.delegate->lastError->userInfo().at("QNQualityErrors"));
    const auto errors =
        std::any_cast<QNResourceErrors>(failures.at("v")->userInfo().at("QNResourceErrors"));
    // A missing parent reads as ENOTDIR or EEXIST, as the system has it.
    const auto code = errors.at(0)->code();
    EXPECT_TRUE(code == row.errnum || (row.errnum == ENOTDIR && code == EEXIST)) << code;
    EXPECT_TRUE(errors.at(0)->stringForKey(platform::NSFilePathErrorKey).has_value());
    if (row.obstacle) {
      EXPECT_EQ(readFile(world.directory() + "/" + row.obstacle), "kept");
    }
    EXPECT_EQ(set->numberOfDownloadedQualities(), 1U) << "the other quality is there";
    world.downloader->removeAll();
    world.delegate->take();
  }
}

TEST_F(Downloader, ReplacesAFileThatIsThere) {
  const auto set = started();
  const std::string prefix = world.directory().substr(world.root.path().size() + 1);
  world.root.write(prefix + "/v/1", "old");
  world.serveAll();
  EXPECT_EQ(readFile(world.directory() + "/v/1"), world.bodyOf("v/1"));
}

TEST_F(Downloader, FailsResourcesWithoutAPlaceWithoutAskingTheNetwork) {
  const auto set = started({{QNMediaTypeVideo,
                             "v",
                             {"v/1", "manifest.mpd", "QNMovieDownloadSetProperties.json", "dir/",
                              "ftp://host/x", "v/2"}}});
  const std::string manifest = readFile(world.directory() + "/manifest.mpd").value_or("");
  world.serveAll();
  EXPECT_EQ(world.delegate->take(),
            "quality v QNDownloadErrorDomain -1001\nstatus idle\n"
            "complete QNDownloadErrorDomain -1002\n");
  const auto failures =
      std::any_cast<QNQualityErrors>(world.delegate->lastError->userInfo().at("QNQualityErrors"));
  const auto errors =
      std::any_cast<QNResourceErrors>(failures.at("v")->userInfo().at("QNResourceErrors"));
  ASSERT_EQ(errors.size(), 4U);
  const std::string posix = "NSPOSIXErrorDomain " + std::to_string(EISDIR);
  EXPECT_EQ(render(errors.at(1)), posix);
  EXPECT_NE(errors.at(1)->localizedDescription().find("stored manifest"), std::string::npos);
  EXPECT_EQ(render(errors.at(2)), posix);
  EXPECT_EQ(render(errors.at(3)), posix);
  EXPECT_EQ(render(errors.at(4)), "NSURLErrorDomain -1002");
  EXPECT_EQ(world.stored(), "v/1 v/2 ");
  EXPECT_EQ(readFile(world.directory() + "/manifest.mpd"), manifest);
}

TEST_F(Downloader, ACancelInTheLastReportIsACancel) {
  const auto set = started({{QNMediaTypeVideo, "v", {"v/1"}}});
  world.delegate->recordsProgress = true;
  const auto task = world.session().tasks()[0];
  ASSERT_TRUE(world.session().serve(task, "body"));
  world.session().deliverEvent();
  world.delegate->react = [&](const auto&, const std::string& line) {
    if (line.starts_with("progress v")) world.downloader->cancel(set);
  };
  world.session().deliverEvents();
  EXPECT_EQ(render(*set), "idle selected v:. downloaded completed 0 failed 0");
  set->_checkInvariants();
  world.delegate->react = nullptr;
  ASSERT_TRUE(world.downloader->download(set));
  world.serveAll();
  EXPECT_EQ(readFile(world.directory() + "/v/1"), world.bodyOf("v/1"));
}

TEST_F(Downloader, ADelegateMayRemoveTheDownloadAndStartItAnew) {
  for (const char* moment : {"progress", "quality", "status idle", "complete"}) {
    auto set = started({{QNMediaTypeVideo, "v", {"v/1", "v/2"}}});
    world.delegate->recordsProgress = true;
    bool done = false;
    std::weak_ptr<QNMovieDownloadSet> old = set;
    set.reset();
    world.delegate->react = [&](const auto& told, const std::string& line) {
      if (done || !line.starts_with(moment)) return;
      done = true;
      world.downloader->remove(told);
      world.storeManifest({{QNMediaTypeVideo, "v", {"v/1", "v/2"}}});
      const auto fresh = world.activate();
      EXPECT_NE(fresh, told);
      fresh->selectAllQualities();
      EXPECT_TRUE(world.downloader->download(fresh));
    };
    world.serveAll();
    world.delegate->react = nullptr;
    EXPECT_TRUE(done) << moment;
    EXPECT_TRUE(old.expired()) << moment;
    const auto fresh = world.downloader->fetchActiveDownloadSetForURL(world.url);
    ASSERT_NE(fresh, nullptr) << moment;
    EXPECT_EQ(render(*fresh), "idle selected downloaded v completed 0 failed 0") << moment;
    EXPECT_EQ(fresh->properties()->numberOfDownloadedQualities(), 1U) << moment;
    EXPECT_EQ(world.stored(), "v/1 v/2 ") << moment;
    world.downloader->removeAll();
    world.delegate->take();
  }
}

TEST_F(Downloader, TheLastReferencesMayGoInsideACall) {
  const auto set = started();
  const std::weak_ptr<QNMovieDownloader> downloader = world.downloader;
  const auto session = world.sessions.session();
  const std::weak_ptr<qntest::ScriptedSession> weakSession = session;
  world.delegate->recordsProgress = true;
  world.delegate->react = [&](const auto&, const std::string&) { world.downloader.reset(); };
  ASSERT_TRUE(session->serve(session->tasks()[0], "body"));
  session->deliverEvents();
  EXPECT_TRUE(downloader.expired());
  EXPECT_EQ(session->deliverEvents(), 0U);
  EXPECT_EQ(weakSession.use_count(), 1) << "nobody else holds the session";
  // The set is the application's; it cannot start anything any more.
  EXPECT_EQ(set->status(), QNDownloadStatusRunning);
  set->cancel();
  EXPECT_EQ(thrownBy([&] { set->downloadWithAdditionalHeaders(nullptr); }).reason(),
            "Controller is required to be non-null");
}

TEST_F(Downloader, EndsTheTasksOfASetThatIsGone) {
  auto set = started();
  // Replaced in the table of active sets by another of the same identifier, and dropped.
  const auto tasks = world.session().tasks();
  const std::weak_ptr<QNMovieDownloadSet> weak = set;
  const auto resources = set->selectedQualitiesInfo()[0]->resources()[0];
  set.reset();
  world.downloader->removeAll();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(resources->quality(), nullptr);
  world.serveAll();
  EXPECT_EQ(world.sessions.store("test")->size(), 0U);
}

// Life cycle

TEST_F(Downloader, RefreshesRunningTasksForASecondAtTheForeground) {
  const auto set = started();
  auto& session = world.session();
  const auto paused = session.tasks()[0];
  const auto cancelled = session.tasks()[1];
  const auto running = session.tasks()[2];
  platform::Application::sharedApplication().enterBackground();
  EXPECT_EQ(session.pendingEvents(), 0U);
  platform::Application::sharedApplication().enterForeground();
  session.deliverEvents();
  EXPECT_EQ(running->state(), URLSessionTaskState::Running) << "not before the main queue";
  world.mainQueue->run();
  for (const auto& task : {paused, cancelled, running})
    EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  world.mainQueue->advance(std::chrono::milliseconds(999));
  EXPECT_EQ(running->state(), URLSessionTaskState::Suspended);
  // Meanwhile the application has other plans with two of them.
  const auto resourceOf = [&](const auto& task) {
    for (const auto& info : set->selectedQualitiesInfo()) {
      for (const auto& one : info->resources())
        if (one->downloadTask() == task) return one;
    }
    return std::shared_ptr<QNResourceDownloadInfo>();
  };
  EXPECT_TRUE(resourceOf(paused)->pause());
  EXPECT_TRUE(resourceOf(cancelled)->cancel());
  world.mainQueue->advance(std::chrono::milliseconds(1));
  EXPECT_EQ(running->state(), URLSessionTaskState::Running);
  EXPECT_EQ(paused->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(cancelled->state(), URLSessionTaskState::Canceling);
}

TEST_F(Downloader, ReleasesBackgroundHandlersOneByOneWhileTasksAreLeft) {
  const auto set = started();
  std::string called;
  // No events were held: each handler is answered by an end of its own.
  for (const char name : {'1', '2', '3'})
    world.downloader->handleBackgroundEventsWithCompletionHandler([&, name] { called += name; });
  world.downloader->handleBackgroundEventsWithCompletionHandler(nullptr);
  const auto tell = [&] {
    world.session().deliverEvent();
    const std::string before = called;
    world.mainQueue->run();
    return before;
  };
  EXPECT_EQ(tell(), "") << "on the main queue";
  EXPECT_EQ(called, "1");
  world.downloader->cancel(set);
  tell();
  EXPECT_EQ(called, "123");
  world.session().deliverEvents();
  world.mainQueue->run();
  EXPECT_EQ(called, "123");
}

}  // namespace
