#include <any>
#include <cmath>
#include <sstream>

#include <gtest/gtest.h>

#include "engine/QNDownloadRecord.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "playlist/QNMovie.h"
#include "playlist/QNTrack.h"
#include "tests/support/EngineWorld.h"
#include "tests/support/ScriptedFileManager.h"
#include "tests/support/TempDirectory.h"

namespace {

using qntest::numbered;
using qntest::PlainController;
using qntest::QualityPlan;
using qntest::render;

class DownloadSet : public testing::Test {
 protected:
  DownloadSet() { files.setFast(); }

  const std::vector<QualityPlan> usual = {{QNMediaTypeVideo, "v1", {"v1/1", "v1/2", "v1/3"}},
                                          {QNMediaTypeVideo, "v2", {"v2/1", "v2/2"}},
                                          {QNMediaTypeAudio, "a", {"a/1", "a/2"}},
                                          {QNMediaTypeText, "empty", {}},
                                          {QNMediaTypeUnknown, "none", {"n/1"}}};

  void make(const std::vector<QualityPlan>& qualities) {
    set = QNMovieDownloadSet::downloadSetWithPlaylist(qntest::makePlaylist(qualities),
                                                      directory->path(), "manifest.mpd",
                                                      "http://h/m.mpd", "id", controller);
    set->setDelegate(delegate);
  }

  void restart() {
    controller = std::make_shared<PlainController>();
    delegate = std::make_shared<qntest::RecordingDelegate>();
    directory = std::make_unique<qntest::TempDirectory>();
  }

  std::shared_ptr<QNQuality> quality(const std::string& identifier) {
    for (const auto& track : set->movie()->tracks()) {
      if (track->qualities()[0]->identifier() == identifier) return track->qualities()[0];
    }
    return nullptr;
  }

  // "v1.0" is the first resource of quality v1.
  std::shared_ptr<QNResourceDownloadInfo> resource(const std::string& name) {
    const size_t dot = name.find('.');
    const auto info = set->qualityInfoForQuality(quality(name.substr(0, dot)));
    return info->resources().at(std::stoul(name.substr(dot + 1)));
  }

  // What the operations said and what the delegate was told, in their order.
  std::string apply(const std::string& script) {
    std::istringstream input(script);
    std::string told;
    for (std::string name; input >> name;) {
      std::string answer;
      try {
        answer = applyOne(name, input);
      } catch (const platform::Exception& exception) {
        answer = exception.reason() + "; ";
      }
      std::string lines = delegate->take();
      for (char& c : lines)
        if (c == '\n') c = ';';
      for (size_t at = 0; (at = lines.find(';', at)) != std::string::npos; at += 2)
        lines.insert(at + 1, " ");
      told += lines + answer;
    }
    set->_checkInvariants();
    return told;
  }

  std::string applyOne(const std::string& name, std::istringstream& input) {
    if (name == "download") return set->downloadWithAdditionalHeaders(nullptr) ? "yes; " : "no; ";
    if (name == "pause") set->pause();
    if (name == "resume") set->resume();
    if (name == "cancel") set->cancel();
    if (name == "selectall") set->selectAllQualities();
    if (name == "deselectall") set->deselectAllQualities();
    if (name == "removeall") set->removeAllDownloadedQualities();
    if (name == "pause" || name == "resume" || name == "cancel" || name.ends_with("all")) return "";
    std::string what;
    input >> what;
    if (name == "select") set->selectQuality(quality(what));
    if (name == "deselect") set->deselectQuality(quality(what));
    if (name == "remove") set->removeDownloadedQuality(quality(what));
    if (name == "ok") set->resourceCompleteWithError(resource(what), nullptr);
    if (name == "404") {
      set->resourceCompleteWithError(
          resource(what), platform::Error::errorWithDomain(QNDownloadHTTPErrorDomain, 404));
    }
    if (name == "lost") {
      set->resourceCompleteWithError(
          resource(what), platform::Error::errorWithDomain(platform::NSURLErrorDomain, -1005));
    }
    if (name == "bytes") {
      int64_t bytes = 0, expected = 0;
      input >> bytes >> expected;
      set->resourceBytesDownloadedAndExpected(resource(what), bytes, expected);
    }
    return "";
  }

  qntest::ScriptedFileManager files;
  std::shared_ptr<PlainController> controller = std::make_shared<PlainController>();
  std::shared_ptr<qntest::RecordingDelegate> delegate =
      std::make_shared<qntest::RecordingDelegate>();
  std::unique_ptr<qntest::TempDirectory> directory = std::make_unique<qntest::TempDirectory>();
  std::shared_ptr<QNMovieDownloadSet> set;
};

TEST_F(DownloadSet, TellsWhatHappensInOrder) {
  struct Row {
    const char* script;
    const char* told;
    const char* state;
  };
  const Row rows[] = {
      // starting
      {"download", "no; ", "idle selected downloaded completed 0 failed 0"},
      {"select v2 download", "status running; yes; ",
       "running selected v2:RR downloaded completed 0 failed 0"},
      {"select v2 download download", "status running; yes; no; ",
       "running selected v2:RR downloaded completed 0 failed 0"},
      {"select empty download", "no; ", "idle selected empty: downloaded completed 0 failed 0"},
      // selecting
      {"select v1 select v1 select a deselect v1 deselect v2", "",
       "idle selected a:.. downloaded completed 0 failed 0"},
      {"select none", "Quality has invalid media type; ",
       "idle selected downloaded completed 0 failed 0"},
      {"select foreign", "Quality not available in movie; ",
       "idle selected downloaded completed 0 failed 0"},
      {"deselect foreign remove foreign",
       "Quality not available in movie; Quality not available in movie; ",
       "idle selected downloaded completed 0 failed 0"},
      {"select v2 download select v1 deselect v2 selectall deselectall remove v2 removeall",
       "status running; yes; Can't select quality in non-idle state; "
       "Can't deselect quality in non-idle state; Can't select quality in non-idle state; "
       "Can't deselect quality in non-idle state; Can't remove quality in non-idle state; "
       "Can't remove qualities in non-idle state; ",
       "running selected v2:RR downloaded completed 0 failed 0"},
      {"select v1 select a deselectall", "", "idle selected downloaded completed 0 failed 0"},
      // pausing
      {"select v2 select a download pause", "status running; yes; status paused; ",
       "paused selected v2:pp a:pp downloaded completed 0 failed 0"},
      {"select v2 download pause pause", "status running; yes; status paused; ",
       "paused selected v2:pp downloaded completed 0 failed 0"},
      {"select v2 download pause resume resume",
       "status running; yes; status paused; status running; ",
       "running selected v2:RR downloaded completed 0 failed 0"},
      {"pause resume cancel", "", "idle selected downloaded completed 0 failed 0"},
      {"select v2 download cancel cancel", "status running; yes; status idle; ",
       "idle selected v2:.. downloaded completed 0 failed 0"},
      {"select v2 download pause cancel", "status running; yes; status paused; status idle; ",
       "idle selected v2:.. downloaded completed 0 failed 0"},
      {"select v2 download cancel download pause",
       "status running; yes; status idle; "
       "status running; yes; status paused; ",
       "paused selected v2:pp downloaded completed 0 failed 0"},
      // completing
      {"select v2 download ok v2.0", "status running; yes; ",
       "running selected v2:CR downloaded completed 0 failed 0"},
      {"select v2 select a download ok v2.0 ok v2.1", "status running; yes; quality v2 none; ",
       "running selected v2:CC a:RR downloaded completed 1 failed 0"},
      {"select v2 select a download ok v2.0 ok v2.1 ok a.0 ok a.1",
       "status running; yes; quality v2 none; quality a none; status idle; complete none; ",
       "idle selected downloaded a v2 completed 0 failed 0"},
      {"select v2 select a download 404 v2.1 ok v2.0 ok a.0 ok a.1",
       "status running; yes; quality v2 QNDownloadErrorDomain -1001; quality a none; "
       "status idle; complete QNDownloadErrorDomain -1002; ",
       "idle selected v2:C. downloaded a completed 0 failed 0"},
      {"select v2 select a download 404 v2.1 ok v2.0 ok a.0 ok a.1 download ok v2.1",
       "status running; yes; quality v2 QNDownloadErrorDomain -1001; quality a none; "
       "status idle; complete QNDownloadErrorDomain -1002; status running; yes; "
       "quality v2 none; status idle; complete none; ",
       "idle selected downloaded a v2 completed 0 failed 0"},
      {"select v2 download ok v2.0 ok v2.1 select v2",
       "status running; yes; quality v2 none; "
       "status idle; complete none; ",
       "idle selected downloaded v2 completed 0 failed 0"},
      {"select v2 download pause ok v2.0 ok v2.1",
       "status running; yes; status paused; "
       "quality v2 none; status idle; complete none; ",
       "idle selected downloaded v2 completed 0 failed 0"},
      {"select v2 select empty download ok v2.0 ok v2.1",
       "status running; yes; quality v2 none; status idle; complete none; ",
       "idle selected empty: downloaded v2 completed 0 failed 0"},
      // what completed is settled by the next start, and counts as long as it is selected
      {"select v2 select a download ok v2.0 ok v2.1 cancel",
       "status running; yes; quality v2 none; status idle; ",
       "idle selected v2:CC a:.. downloaded completed 1 failed 0"},
      {"select v2 select a download ok v2.0 ok v2.1 cancel download ok a.0 ok a.1",
       "status running; yes; quality v2 none; status idle; status running; yes; "
       "quality a none; status idle; complete none; ",
       "idle selected downloaded v2 a completed 0 failed 0"},
      {"select v2 select a download ok v2.0 ok v2.1 cancel deselect v2 download ok a.0 ok a.1",
       "status running; yes; quality v2 none; status idle; status running; yes; "
       "quality a none; status idle; complete none; ",
       "idle selected downloaded a completed 0 failed 0"},
      {"select v2 select a download ok v2.0 ok v2.1 cancel deselect v2 deselect a select v2 "
       "download",
       "status running; yes; quality v2 none; status idle; no; ",
       "idle selected downloaded v2 completed 0 failed 0"},
      {"select v2 select a download 404 v2.0 ok v2.1 cancel deselect v2",
       "status running; yes; quality v2 QNDownloadErrorDomain -1001; status idle; ",
       "idle selected a:.. downloaded completed 0 failed 0"},
      {"select v2 select a download 404 v2.0 ok v2.1 cancel deselect v2 select v2",
       "status running; yes; quality v2 QNDownloadErrorDomain -1001; status idle; ",
       "idle selected a:.. v2:FC downloaded completed 1 failed 1"},
      {"select v2 select a download 404 v2.0 ok v2.1 cancel download",
       "status running; yes; quality v2 QNDownloadErrorDomain -1001; status idle; "
       "status running; yes; ",
       "running selected v2:RC a:RR downloaded completed 0 failed 0"},
      {"select v2 select a download ok v2.0 ok v2.1 cancel remove v2 download",
       "status running; yes; quality v2 none; status idle; status running; yes; ",
       "running selected v2:RR a:RR downloaded completed 0 failed 0"},
      {"select v2 select a download lost v2.0 ok a.0 ok a.1 cancel download",
       "status running; yes; quality a none; status idle; status running; yes; ",
       "running selected v2:RR downloaded a completed 0 failed 0"},
      // what failed before a cancel is tried again by the next start
      {"select v2 download 404 v2.0 cancel download ok v2.1 ok v2.0",
       "status running; yes; status idle; status running; yes; "
       "quality v2 none; status idle; complete none; ",
       "idle selected downloaded v2 completed 0 failed 0"},
      // removing
      {"select v2 download ok v2.0 ok v2.1 remove v2",
       "status running; yes; quality v2 none; "
       "status idle; complete none; ",
       "idle selected downloaded completed 0 failed 0"},
      {"select v2 download ok v2.0 ok v2.1 remove v2 select v2 download",
       "status running; yes; quality v2 none; status idle; complete none; status running; yes; ",
       "running selected v2:RR downloaded completed 0 failed 0"},
      {"removeall", "", "idle selected downloaded completed 0 failed 0"},
      // misuse from below
      {"select v2 download ok v2.0 ok v2.1 ok v2.0",
       "status running; yes; quality v2 none; status idle; complete none; "
       "Quality already completed; ",
       "idle selected downloaded v2 completed 0 failed 0"},
  };
  for (const Row& row : rows) {
    restart();
    make(usual);
    EXPECT_EQ(apply(row.script), row.told) << row.script;
    EXPECT_EQ(render(*set), row.state) << row.script;
    size_t active = 0;
    for (const auto& info : set->selectedQualitiesInfo())
      active += info->numActive();
    EXPECT_EQ(controller->tasks.size(), active) << row.script;
  }
}

TEST_F(DownloadSet, ReportsProgressOfQualityAndSetUnlessItIsUnknown) {
  make({{QNMediaTypeVideo, "v", {"v/1@0+100", "v/2@0+100"}},
        {QNMediaTypeAudio, "a", {"a/1", "a/2"}}});
  delegate->recordsProgress = true;
  // The set counts what lies in its directory from the start, the properties file too.
  const int64_t stored = set->downloadedBytes();
  auto& files = platform::FileManager::defaultManager();
  EXPECT_EQ(stored, files.folderSize(directory->path()) -
                        files.sizeOfFile(directory->path(QNDownloadRecordFileName)).value_or(0));
  const auto share = [&](int64_t bytes, int64_t of) {
    return std::to_string(
               std::lround(100.0 * static_cast<double>(stored + bytes) / static_cast<double>(of))) +
           "%~; ";
  };
  EXPECT_EQ(apply("select v download bytes v.0 50 100"),
            "status running; yes; progress v 25%~; progress " + share(50, 200));
  EXPECT_EQ(apply("bytes v.1 100 100 cancel"),
            "progress v 75%~; progress " + share(150, 200) + "status idle; ");
  // An unknown quality enters the set's sum as -1 and has no progress itself.
  EXPECT_EQ(apply("select a download bytes a.0 199 -1"),
            "status running; yes; progress " + share(199, 199));
  EXPECT_EQ(set->expectedBytes().value, 199);
  EXPECT_EQ(apply("cancel deselect v download bytes a.0 1 -1"),
            "status idle; status running; yes; ");
}

TEST_F(DownloadSet, TellsSizesOfTheMovieOfTheSelectionAndOfWhatIsThere) {
  make({{QNMediaTypeVideo, "v", {"v/1@0+100", "v/2@0+100"}},
        {QNMediaTypeAudio, "a", {"a/1@0+10"}},
        {QNMediaTypeText, "t", {"t/1", "t/2"}}});
  EXPECT_EQ(render(set->totalSize()), "?") << "one quality is unknown";
  EXPECT_EQ(render(set->expectedBytes()), "0~");
  const int64_t stored = set->downloadedBytes();
  apply("select v select a download bytes a.0 10 10 ok a.0 bytes v.0 30 100");
  EXPECT_EQ(render(set->selectedSize()), "210~");
  EXPECT_EQ(set->downloadedSize(), 0);
  EXPECT_EQ(set->resourceBytes(), 40);
  EXPECT_EQ(set->downloadedBytes(), stored + 40);
  apply("bytes v.0 100 100 bytes v.1 100 100 ok v.0 ok v.1");
  EXPECT_EQ(set->downloadedSize(), 210);
  EXPECT_EQ(set->downloadedBytes(), 0) << "a completion starts over";
  EXPECT_EQ(set->resourceBytes(), 210);
  EXPECT_EQ(set->expectedBytesForQuality(nullptr).value, -1);
  make({});
  EXPECT_EQ(render(set->totalSize()), "?");
}

TEST_F(DownloadSet, MergesHeadersSoThatTheSetsWin) {
  using H = QNHeaders;
  struct Row {
    QNHeadersPtr call;
    QNHeadersPtr own;
    H sent;
  };
  const auto headers = [](H h) { return std::make_shared<const H>(std::move(h)); };
  const Row rows[] = {
      {headers({{"A", "1"}, {"B", "2"}}), headers({{"B", "3"}}), {{"A", "1"}, {"B", "3"}}},
      {headers({{"A", "1"}, {"b", "2"}}), headers({{"B", "3"}}), {{"A", "1"}, {"B", "3"}}},
      {nullptr, headers({{"B", "3"}}), {{"B", "3"}}},
      {headers({{"A", "1"}}), nullptr, {{"A", "1"}}},
      {nullptr, nullptr, {}},
  };
  for (const Row& row : rows) {
    restart();
    make(usual);
    set->setAdditionalHeaders(row.own);
    set->selectQuality(quality("v2"));
    ASSERT_TRUE(set->downloadWithAdditionalHeaders(row.call));
    for (const auto& [task, owner] : controller->tasks) {
      H sent;
      for (const auto& [name, value] : task->originalRequest()->allHTTPHeaderFields().fields())
        sent[name] = value;
      EXPECT_EQ(sent, row.sent);
    }
  }
}

TEST_F(DownloadSet, EveryStartReturnsToFourAtATime) {
  make({{QNMediaTypeVideo, "v", numbered("v/", 9)}});
  const auto info = set->qualityInfoForQuality(quality("v"));
  info->setParallellDownloads(7);
  apply("select v download");
  EXPECT_EQ(qntest::letters(*info), "RRRR.....");
}

TEST_F(DownloadSet, NamesTheFailedQualitiesInItsError) {
  make(usual);
  apply("select v2 select a download 404 v2.0 ok v2.1 ok a.0 ok a.1");
  const auto failure = delegate->lastError;
  EXPECT_EQ(std::any_cast<std::shared_ptr<QNMovie>>(failure->userInfo().at("QNMovie")),
            set->movie());
  const auto errors = std::any_cast<QNQualityErrors>(failure->userInfo().at("QNQualityErrors"));
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(render(errors.at("v2")), "QNDownloadErrorDomain -1001");
}

TEST_F(DownloadSet, ADelegateMayChangeEverythingFromInside) {
  struct Row {
    const char* on;      // the delegate reacts to the first line like this
    const char* script;  // with these operations
    const char* told;    // from then on, its own included
    const char* state;
  };
  // v2 and a are downloading, everything but a.1 is complete; a.1 completes.
  const Row rows[] = {
      {"quality a", "select v1", "quality a none; status idle; complete none; ",
       "idle selected v1:... downloaded a v2 completed 0 failed 0"},
      {"quality a", "select v1 download", "quality a none; status running; ",
       "running selected v1:RRR downloaded a v2 completed 0 failed 0"},
      {"quality a", "cancel pause resume", "quality a none; status idle; complete none; ",
       "idle selected downloaded a v2 completed 0 failed 0"},
      {"quality a", "deselect a", "quality a none; status idle; complete none; ",
       "idle selected downloaded v2 completed 0 failed 0"},
      {"quality a", "deselectall", "quality a none; status idle; complete none; ",
       "idle selected downloaded completed 0 failed 0"},
      {"quality a", "remove v2", "quality a none; status idle; complete none; ",
       "idle selected v2:.. downloaded a completed 0 failed 0"},
      {"quality a", "removeall", "quality a none; status idle; complete none; ",
       "idle selected v2:.. a:.. downloaded completed 0 failed 0"},
      {"status idle", "select v1 download",
       "quality a none; status idle; status running; complete none; ",
       "running selected v1:RRR downloaded a v2 completed 0 failed 0"},
      {"complete", "select v1 download pause",
       "quality a none; status idle; complete none; status running; status paused; ",
       "paused selected v1:ppp downloaded a v2 completed 0 failed 0"},
      {"complete", "remove a select a download",
       "quality a none; status idle; complete none; status running; ",
       "running selected a:RR downloaded v2 completed 0 failed 0"},
  };
  for (const Row& row : rows) {
    restart();
    make(usual);
    apply("select v2 select a download ok v2.0 ok v2.1 ok a.0");
    bool reacted = false;
    delegate->react = [&](const auto&, const std::string& line) {
      if (reacted || !line.starts_with(row.on)) return;
      reacted = true;
      std::istringstream input(row.script);
      for (std::string name; input >> name;)
        applyOne(name, input);
    };
    EXPECT_EQ(apply("ok a.1"), row.told) << row.on << ": " << row.script;
    EXPECT_EQ(render(*set), row.state) << row.on << ": " << row.script;
  }
}

TEST_F(DownloadSet, ADelegateMayCancelWhileOthersAreActive) {
  make(usual);
  apply("select v2 select a download ok v2.0");
  delegate->react = [&](const auto& told, const std::string& line) {
    if (line.starts_with("quality v2")) told->cancel();
  };
  EXPECT_EQ(apply("ok v2.1"), "quality v2 none; status idle; ");
  EXPECT_EQ(render(*set), "idle selected v2:CC a:.. downloaded completed 1 failed 0");
}

TEST_F(DownloadSet, AThrowingDelegateHarmsNobody) {
  make(usual);
  delegate->react = [](const auto&, const std::string&) { throw std::runtime_error("of its own"); };
  EXPECT_EQ(apply("select v2 download ok v2.0 ok v2.1"),
            "status running; yes; quality v2 none; status idle; complete none; ");
}

TEST_F(DownloadSet, IsFreedWithItsLastUserAlsoInsideACallAndWithTransfersRunning) {
  make(usual);
  const std::weak_ptr<QNMovieDownloadSet> weak = set;
  apply("select v1 download");
  const std::weak_ptr<QNQualityDownloadInfo> weakQuality = set->selectedQualitiesInfo()[0];
  set.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_TRUE(weakQuality.expired());
  ASSERT_EQ(controller->tasks.size(), 3U) << "the transfers run on";
  EXPECT_EQ(controller->tasks.begin()->second->quality(), nullptr);

  restart();
  make(usual);
  const std::weak_ptr<QNMovieDownloadSet> inside = set;
  delegate->react = [&](const auto&, const std::string&) { set.reset(); };
  set->selectQuality(quality("v1"));
  QNMovieDownloadSet* const raw = set.get();
  EXPECT_TRUE(raw->downloadWithAdditionalHeaders(nullptr));
  EXPECT_TRUE(inside.expired());
}

TEST_F(DownloadSet, DerivesItsBaseFromTheSourceURL) {
  const char* const rows[][2] = {
      {"http://h/a/b/m.mpd", "http://h/a/b/"},
      {"http://h/a/m.mpd?x=/1/2#f/3", "http://h/a/"},
      {"http://u:p@h:8080/m.mpd#f", "http://u:p@h:8080/"},
      {"http://h/a/b/", "http://h/a/b/"},
      {"http://h", "http://h/"},
      {"http://h?q=1", "http://h/"},
      {"file:///a/b.mpd", "file:///a/"},
      {"m.mpd", "/"},
  };
  for (const auto& row : rows) {
    restart();
    set = QNMovieDownloadSet::downloadSetWithPlaylist(
        qntest::makePlaylist(usual), directory->path(), "manifest.mpd", row[0], "id", controller);
    EXPECT_EQ(set->baseURL(), row[1]) << row[0];
  }
}

TEST_F(DownloadSet, WithoutAMovieThereIsNoSet) {
  for (const auto& playlist : {std::shared_ptr<QNPlaylist>(), QNPlaylist::playlistWithMovies({})}) {
    EXPECT_THROW(QNMovieDownloadSet::downloadSetWithPlaylist(
                     playlist, directory->path(), "manifest.mpd", "http://h/m", "id", controller),
                 platform::Exception);
  }
}

}  // namespace
