#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <random>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "engine/QNDownloadHold.h"
#include "engine/QNDownloadRecord.h"
#include "engine/QNRecordLine.h"
#include "playlist/QNMovie.h"
#include "playlist/QNTrack.h"
#include "tests/support/DownloaderWorld.h"

// What a download's record says of its files, and what becomes of files that it does not vouch for.

namespace {

using qntest::DownloaderWorld;
using qntest::QualityPlan;
using qntest::readFile;
using qntest::render;

const std::vector<QualityPlan> kMovie = {{QNMediaTypeVideo, "v", {"v/1", "v/2", "v/3"}},
                                         {QNMediaTypeAudio, "a", {"a/1", "a/2"}}};

TEST(RecordLine, IsReadAsItWasWrittenAndInNoOtherWay) {
  using Kind = QNRecordLine::Kind;
  const std::string strange("\"\\\x01 \xc3\xa4/[,]");
  std::string line = QNRecordFile(strange, 7, 0xfedcba9876543210U, "W/\"x\"", "");
  const QNRecordLine file = QNReadRecordLine(std::string_view(line).substr(0, line.size() - 1));
  ASSERT_EQ(file.kind, Kind::File);
  EXPECT_EQ(QNUnescaped(file.place), strange);
  EXPECT_EQ(file.number, 7U);
  EXPECT_EQ(file.hash, 0xfedcba9876543210U);
  EXPECT_EQ(QNUnescaped(file.validator), "W/\"x\"");
  // Whatever is cut off, lost its bytes or has others behind it is no line.
  for (size_t i = 0; i + 1 < line.size(); ++i) {
    std::string zeroed = line.substr(0, line.size() - 1);
    EXPECT_EQ(QNReadRecordLine(zeroed.substr(0, i)).kind, Kind::Invalid) << i;
    zeroed[i] = '\0';
    EXPECT_EQ(QNReadRecordLine(zeroed).kind, Kind::Invalid) << i;
  }
  for (const char* text :
       {R"(["gone","a"]])", R"(["gone", "a"])", R"(["gone","\n"])", R"(["mark","b"])",
        R"(["file","a",-1,"","",""])", R"(["file","a",1,"12","",""])", R"(["other","a"])"})
    EXPECT_EQ(QNReadRecordLine(text).kind, Kind::Invalid) << text;
}

class Record : public testing::Test {
 protected:
  void SetUp() override {
    world.storeManifest(kMovie);
    world.launch();
  }

  // Downloads what is selected, or as far as the answers go.
  std::shared_ptr<QNMovieDownloadSet> downloadAll() {
    const auto set = world.activate();
    set->selectAllQualities();
    EXPECT_TRUE(world.downloader->download(set));
    world.serveAll();
    return set;
  }

  std::string afterRelaunch(const std::string& boot) {
    world.kill();
    world.sessions.store("test")->setBoot(boot);
    world.launch();
    return render(*world.activate());
  }

  std::string path(const std::string& name) { return world.directory() + "/" + name; }
  std::string recordText() { return *readFile(path(QNDownloadRecordFileName)); }
  void write(const std::string& name, const std::string& content) {
    world.root.write(path(name).substr(world.root.path().size() + 1), content);
  }
  // As if nothing had been flushed.
  void dropMarks() {
    std::string text = recordText();
    for (size_t mark = 0; (mark = text.rfind("[\"mark\"")) > text.find("[\"mark\"");)
      text.erase(mark, text.find('\n', mark) + 1 - mark);
    write(QNDownloadRecordFileName, text);
  }

  DownloaderWorld world;
};

TEST_F(Record, VouchesForWhatIsThereAndForNothingElse) {
  const std::string whole = "idle selected downloaded v a completed 0 failed 0";
  const std::string partial = "idle selected v:C.C downloaded a completed 0 failed 0";
  const std::string nothing = "idle selected downloaded completed 0 failed 0";
  const std::string body = DownloaderWorld::bodyOf("v/2");
  const std::string zeros(body.size(), '\0');
  downloadAll();
  const std::string record = recordText();
  dropMarks();
  const std::string unmarked = recordText();
  const std::string newer = QNRecordHeader(QNDownloadRecord::version + 1) + "?\n";
  struct Row {
    const char* what;
    const char* boot;
    std::string file;  // v/2
    std::optional<std::string> record;
    std::string found;
  };
  const Row rows[] = {
      {"nothing happened", "boot 1", body, record, whole},
      {"nothing happened, another boot", "boot 2", body, record, whole},
      {"no mark, another boot", "boot 2", body, unmarked, whole},
      {"truncated", "boot 1", body.substr(1), record, partial},
      {"longer", "boot 1", body + "x", record, partial},
      {"zeros before the mark", "boot 2", zeros, record, whole},
      {"zeros after the mark, same boot", "boot 1", zeros, unmarked, whole},
      {"zeros after the mark, another boot", "boot 2", zeros, unmarked, partial},
      {"zeros after the mark, no boot known", "", zeros, unmarked, partial},
      {"a torn line", "boot 1", body, record + R"(["gone","v/2)", whole},
      {"gone, says the last line", "boot 1", body, record + QNRecordGone("v/2"), partial},
      {"an empty record", "boot 1", body, "", nothing},
      {"a record of zeros", "boot 1", body, std::string(64, '\0'), nothing},
      {"no record", "boot 2", body, std::nullopt, whole},
      {"a newer record", "boot 1", body, newer, whole},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    for (const char* name : {"v/1", "v/3", "a/1", "a/2"})
      write(name, DownloaderWorld::bodyOf(name));
    write("v/2", row.file);
    write(QNDownloadRecordFileName, row.record.value_or(""));
    if (!row.record) std::filesystem::remove(path(QNDownloadRecordFileName));
    EXPECT_EQ(afterRelaunch(row.boot), row.found);
    EXPECT_EQ(afterRelaunch(row.boot), row.found) << "the second time";
    if (row.record == newer) {
      EXPECT_EQ(recordText(), newer);
    }
    if (row.found == whole) continue;
    // What is missing is fetched, and all of it counts then.
    downloadAll();
    EXPECT_EQ(afterRelaunch("boot 3"), whole);
    EXPECT_EQ(readFile(path("v/2")), body);
  }
}

TEST_F(Record, NothingThatAPowerLossDamagedCountsAsStored) {
  std::random_device device;
  const uint64_t seed = device();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  downloadAll();
  const std::string record = recordText();
  const std::vector<std::string> names = {"v/1", "v/2", "v/3", "a/1", "a/2"};
  for (int round = 0; round < 50; ++round) {
    SCOPED_TRACE(round);
    write(QNDownloadRecordFileName, record);
    dropMarks();
    std::set<std::string> damaged;
    for (const auto& name : names) {
      std::string body = DownloaderWorld::bodyOf(name);
      const size_t from = random() % body.size();
      const bool truncates = random() % 2 == 0;
      if (random() % 2 == 0) {
        truncates ? body.resize(from) : void(std::fill(body.begin() + from, body.end(), '\0'));
        damaged.insert(name);
      }
      write(name, body);
    }
    (void)afterRelaunch("boot " + std::to_string(round + 2));
    const auto set = world.activate();
    for (const auto& track : {set->selectedQualitiesInfo(), set->downloadedQualitiesInfo()}) {
      for (const auto& info : track) {
        for (const auto& resource : info->resources())
          EXPECT_EQ(resource->completed(), !damaged.contains(resource->relativeResourcePath()))
              << resource->relativeResourcePath();
      }
    }
  }
}

TEST_F(Record, IsWrittenBeforeTheFileAndToldAfterTheDisk) {
  std::string order;
  world.files.setFault([&](const std::string& method, const std::string& where) {
    const bool isFlush = method == "flush";
    if (isFlush) {
      // Whoever needs the lock gets it meanwhile.
      auto status = std::async(std::launch::async, [&] { return world.activate()->status(); });
      EXPECT_EQ(status.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }
    if (isFlush || method == "append" || method == "moveItem")
      order += method + " " + where.substr(where.rfind('/') + 1) + "; ";
    return 0;
  });
  world.delegate->react = [&](const auto&, const std::string& line) { order += line + "; "; };
  const auto set = world.activate();
  set->selectQuality(set->movie()->tracks()[1]->qualities()[0]);
  ASSERT_TRUE(world.downloader->download(set));
  world.serveAll();
  const std::string record = QNDownloadRecordFileName;
  // The first file finds no directory for it.
  EXPECT_EQ(order, "status running; append " + record + "; moveItem 1; moveItem 1; append " +
                       record + "; moveItem 2; flush " + record + "; append " + record +
                       "; quality a none; status idle; complete none; ");
  EXPECT_NE(recordText().find("\" http://host/movie/a/2\""), std::string::npos);
  // Media are as a file that the application makes; what tells of addresses is the user's own.
  const mode_t mask = umask(0);
  umask(mask);
  const std::pair<std::string, mode_t> modes[] = {
      {"a/1", 0666 & ~mask}, {record, 0600}, {QNMoviePropertiesFileName, 0600}};
  for (const auto& [name, mode] : modes) {
    struct stat info {};
    ASSERT_EQ(stat(path(name).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, mode) << name;
  }
}

TEST_F(Record, FlushesEachSecondWhileFilesArrive) {
  int flushes = 0;
  world.files.setFault([&](const std::string& method, const std::string&) {
    flushes += method == "flush";
    return 0;
  });
  const auto set = world.activate();
  set->selectAllQualities();
  ASSERT_TRUE(world.downloader->download(set));
  (void)world.session().serve(world.session().taskForURL("v/1"), DownloaderWorld::bodyOf("v/1"));
  (void)world.session().deliverEvents();
  world.backgroundQueue->advance(std::chrono::milliseconds(999));
  EXPECT_EQ(flushes, 0);
  world.backgroundQueue->advance(std::chrono::milliseconds(1));
  EXPECT_EQ(flushes, 1);
  world.backgroundQueue->advance(std::chrono::seconds(10));
  EXPECT_EQ(flushes, 1) << "nothing came since";
}

TEST_F(Record, WhatCannotBeBroughtToTheDiskIsFetchedAgainAndThenFails) {
  for (const int failing : {1, 2, 1000}) {
    SCOPED_TRACE(failing);
    int flushes = 0;
    world.files.setFault([&](const std::string& method, const std::string&) {
      return method == "flush" && ++flushes <= failing ? EIO : 0;
    });
    const auto set = downloadAll();
    if (failing < 1000) {
      EXPECT_EQ(render(*set), "idle selected downloaded a v completed 0 failed 0");
      EXPECT_EQ(render(world.delegate->lastError), "none");
      const std::string record = recordText();
      EXPECT_EQ(afterRelaunch("boot 2"), "idle selected downloaded v a completed 0 failed 0");
    } else {
      EXPECT_EQ(render(*set), "idle selected v:... a:.. downloaded completed 0 failed 0");
      EXPECT_EQ(world.delegate->lastError->code(), QNSetDownloadError);
      EXPECT_EQ(world.stored(), "");
    }
    world.activate()->removeAllDownloadedQualities();
  }
}

TEST_F(Record, ALineThatCannotBeWrittenFailsItsResource) {
  world.files.setFault([&](const std::string& method, const std::string&) {
    return method == "append" ? ENOSPC : 0;
  });
  const auto set = downloadAll();
  EXPECT_EQ(render(*set), "idle selected v:... a:.. downloaded completed 0 failed 0");
  EXPECT_EQ(world.stored(), "");
}

TEST_F(Record, AdoptsWhatWasStoredBeforeThereWereRecords) {
  downloadAll();
  std::filesystem::remove(path(QNDownloadRecordFileName));
  std::filesystem::remove(path("v/3"));
  EXPECT_EQ(afterRelaunch("boot 1"), "idle selected v:CC. downloaded a completed 0 failed 0");
  EXPECT_FALSE(std::filesystem::exists(path(QNDownloadRecordFileName)));
  downloadAll();
  write("a/1", "short");
  EXPECT_EQ(afterRelaunch("boot 2"), "idle selected a:.C downloaded v completed 0 failed 0");
}

TEST_F(Record, IsWrittenAnewWhenMostOfItIsStaleAndNobodyHoldsTheDownload) {
  const std::string whole = "idle selected downloaded v a completed 0 failed 0";
  downloadAll();
  std::string stale = recordText();
  for (int i = 0; i < 50; ++i)
    stale += QNRecordGone("v/9") + QNRecordFile("v/9", 1, 2, "", "");
  write(QNDownloadRecordFileName, stale + QNRecordGone("v/9"));
  {
    const auto held = QNDownloadHold::attempt(world.directory());
    ASSERT_TRUE(held.hold);
    EXPECT_EQ(afterRelaunch("boot 2"), whole);
    EXPECT_GT(recordText().size(), stale.size());
  }
  EXPECT_EQ(afterRelaunch("boot 2"), whole);
  EXPECT_LT(recordText().size(), 1000U);
  EXPECT_EQ(afterRelaunch("boot 3"), whole);
  // What comes next is written to the new one.
  world.activate()->removeAllDownloadedQualities();
  downloadAll();
  EXPECT_EQ(afterRelaunch("boot 4"), whole);
}

TEST_F(Record, AFileOfUnknownOwnerNeverPassesForAnotherOne) {
  world.kill();
  world.storeManifest({{QNMediaTypeVideo, "v", {"all"}}, {QNMediaTypeAudio, "a", {"/all"}}});
  write("all", DownloaderWorld::bodyOf("old"));
  world.launch();
  world.files.setFault([](const std::string& method, const std::string& where) {
    return method == "moveItem" && where.ends_with("/all") ? EIO : 0;
  });
  const auto set = downloadAll();
  EXPECT_EQ(world.delegate->lastError->code(), QNSetDownloadError);
  world.files.setFault(nullptr);
  EXPECT_EQ(afterRelaunch("boot 1"), "idle selected downloaded completed 0 failed 0");
}

TEST_F(Record, WhereCaseIsFoldedNamesThatDifferInItCompete) {
  world.kill();
  world.files.setFoldsCase();
  world.storeManifest({{QNMediaTypeVideo, "v", {"v/1"}}, {QNMediaTypeAudio, "a", {"V/1"}}});
  world.launch();
  const auto set = downloadAll();
  EXPECT_EQ(render(*set), "idle selected a:. downloaded v completed 0 failed 0");
}

}  // namespace
