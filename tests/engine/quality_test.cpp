#include <any>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/Exception.h"
#include "playlist/QNMovie.h"
#include "playlist/QNTrack.h"
#include "tests/support/EngineWorld.h"

namespace {

using qntest::numbered;
using qntest::PlainController;
using qntest::QualityPlan;
using qntest::render;

class Quality : public testing::Test {
 protected:
  void make(const QualityPlan& plan) {
    playlist = qntest::makePlaylist({plan});
    const auto& track = playlist->movies()[0]->tracks()[0];
    info = QNQualityDownloadInfo::infoWithBaseURL("http://host/", "/downloads/x",
                                                  track->qualities()[0], nullptr, controller);
  }

  platform::ErrorPtr error(const std::string& domain, int64_t code) {
    return platform::Error::errorWithDomain(domain, code);
  }

  // An error as a broken connection leaves it.
  platform::ErrorPtr continuable(const QNResourceDownloadInfo& resource) {
    auto& session = *controller->session;
    const auto task = resource.downloadTask();
    EXPECT_TRUE(session.respond(task, 200, 100) && session.deliver(task, "12345"));
    EXPECT_TRUE(session.fail(task, -1005, true));
    return task->error();
  }

  // Operations by name, with a resource's index where they are about one. Returns what the last one
  // said.
  std::string apply(const std::string& script) {
    std::istringstream input(script);
    std::string answer;
    try {
      for (std::string name; input >> name;)
        answer = applyOne(name, input);
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), platform::NSInternalInconsistencyException);
      return exception.reason();
    }
    info->_checkInvariants();
    return answer;
  }

  std::string applyOne(const std::string& name, std::istringstream& input) {
    const auto answer = [](bool acted) { return std::string(acted ? "yes" : "no"); };
    if (name == "download") return answer(info->download());
    if (name == "pause") return answer(info->pause());
    if (name == "resume") return answer(info->resume());
    if (name == "cancel") return answer(info->cancel());
    if (name == "clear") return answer(info->clear());
    if (name == "reset") {
      info->reset();
      return "-";
    }
    size_t number = 0;
    input >> number;
    if (name == "window") {
      info->setParallellDownloads(number);
      return "-";
    }
    const auto& resource = info->resources().at(number);
    if (name == "ok") return answer(info->resourceCompleteWithError(resource, nullptr));
    if (name == "lost")
      return answer(info->resourceCompleteWithError(resource, continuable(*resource)));
    if (name == "fail" || name == "404") {
      const bool http = name == "404";
      const auto failure =
          http ? error(QNDownloadHTTPErrorDomain, 404) : error(platform::NSURLErrorDomain, -1005);
      return answer(info->resourceCompleteWithError(resource, failure));
    }
    int64_t bytes = 0;
    int64_t expected = 0;
    input >> bytes;
    if (name == "stored") {
      info->resourceCompleteWithBytesPreloaded(resource, bytes);
    } else {
      input >> expected;
      info->resourceBytesDownloadedBytesExpected(resource, bytes, expected);
    }
    return "-";
  }

  std::shared_ptr<PlainController> controller = std::make_shared<PlainController>();
  std::shared_ptr<QNPlaylist> playlist;
  std::shared_ptr<QNQualityDownloadInfo> info;
};

TEST_F(Quality, KeepsItsWindowFullInListOrder) {
  struct Row {
    const char* script;
    const char* answer;
    const char* state;
  };
  const Row rows[] = {
      {"download", "yes", "active 4 running 4 completed 0 failed 0 [RRRR..]"},
      {"download download", "yes", "active 4 running 4 completed 0 failed 0 [RRRR..]"},
      {"window 2 download", "yes", "active 2 running 2 completed 0 failed 0 [RR....]"},
      {"window 0 download", "yes", "active 1 running 1 completed 0 failed 0 [R.....]"},
      {"window 9 download", "yes", "active 6 running 6 completed 0 failed 0 [RRRRRR]"},
      // each completion starts the next
      {"download ok 2", "no", "active 4 running 4 completed 1 failed 0 [RRCRR.]"},
      {"download ok 0 ok 3", "no", "active 4 running 4 completed 2 failed 0 [CRRCRR]"},
      {"download ok 0 ok 1 ok 2 ok 3 ok 4", "no",
       "active 1 running 1 completed 5 failed 0 [CCCCCR]"},
      {"download ok 0 ok 1 ok 2 ok 3 ok 4 ok 5", "yes",
       "active 0 running 0 completed 6 failed 0 [CCCCCC]"},
      {"download ok 0 ok 0", "no", "active 4 running 4 completed 1 failed 0 [CRRRR.]"},
      {"stored 0 10 stored 2 10 download", "yes",
       "active 4 running 4 completed 2 failed 0 [CRCRRR]"},
      {"stored 0 1 stored 1 1 stored 2 1 stored 3 1 stored 4 1 stored 5 1 download", "no",
       "active 0 running 0 completed 6 failed 0 [CCCCCC]"},
      // nothing is started by what completes while it is paused
      {"download pause", "yes", "active 4 running 0 completed 0 failed 0 [pppp..]"},
      {"download pause ok 1", "no", "active 4 running 0 completed 1 failed 0 [pCppp.]"},
      {"download pause pause", "no", "active 4 running 0 completed 0 failed 0 [pppp..]"},
      {"download pause resume", "yes", "active 4 running 4 completed 0 failed 0 [RRRR..]"},
      {"download resume", "no", "active 4 running 4 completed 0 failed 0 [RRRR..]"},
      {"pause", "no", "active 0 running 0 completed 0 failed 0 [......]"},
      {"resume", "no", "active 0 running 0 completed 0 failed 0 [......]"},
      {"cancel", "no", "active 0 running 0 completed 0 failed 0 [......]"},
      {"download cancel", "yes", "active 0 running 0 completed 0 failed 0 [......]"},
      {"download ok 1 pause cancel", "yes", "active 0 running 0 completed 1 failed 0 [.C....]"},
      {"download ok 1 cancel download", "yes", "active 4 running 4 completed 1 failed 0 [RCRRR.]"},
      // failures: again at once, five times in all, except what the server does not have
      {"download fail 0", "no", "active 4 running 4 completed 0 failed 0 [RRRR..]"},
      {"download lost 0", "no", "active 4 running 4 completed 0 failed 0 [RRRR..]"},
      {"download pause fail 0", "no", "active 4 running 0 completed 0 failed 0 [pppp..]"},
      {"download fail 0 fail 0 fail 0 fail 0 fail 0", "no",
       "active 4 running 4 completed 1 failed 1 [FRRRR.]"},
      {"download 404 0", "no", "active 4 running 4 completed 1 failed 1 [FRRRR.]"},
      {"download 404 0 ok 1 404 2 ok 3 ok 4 ok 5", "yes",
       "active 0 running 0 completed 6 failed 2 [FCFCCC]"},
      {"download 404 0 cancel clear", "yes", "active 0 running 0 completed 0 failed 0 [......]"},
      {"download 404 0 ok 1 ok 2 ok 3 ok 4 404 5 clear", "yes",
       "active 0 running 0 completed 4 failed 0 [.CCCC.]"},
      {"download 404 0 ok 1 ok 2 ok 3 ok 4 404 5 clear download", "yes",
       "active 2 running 2 completed 4 failed 0 [RCCCCR]"},
      {"clear", "no", "active 0 running 0 completed 0 failed 0 [......]"},
      {"download clear", "Expected quality status to be IDLE",
       "active 4 running 4 completed 0 failed 0 [RRRR..]"},
      // one that was cancelled while it was tried again counts nowhere
      {"download fail 0 cancel", "yes", "active 0 running 0 completed 0 failed 0 [!.....]"},
      {"download fail 0 cancel clear", "yes", "active 0 running 0 completed 0 failed 0 [......]"},
      {"download fail 0 404 1 cancel clear", "yes",
       "active 0 running 0 completed 0 failed 0 [......]"},
      {"download ok 0 404 1 cancel reset", "-", "active 0 running 0 completed 0 failed 0 [......]"},
      {"fail 0", "Expected resource status to not be IDLE",
       "active 0 running 0 completed 0 failed 0 [......]"},
  };
  for (const Row& row : rows) {
    make({QNMediaTypeVideo, "v", numbered("s", 6)});
    EXPECT_EQ(apply(row.script), row.answer) << row.script;
    std::string state = render(*info);
    const size_t sizes = state.find(" sized");
    state.erase(sizes, state.find(" [") - sizes);
    EXPECT_EQ(state, row.state) << row.script;
    EXPECT_EQ(info->completed(), info->numCompleted() == 6) << row.script;
  }
}

TEST_F(Quality, RollsSizesUpByDifferences) {
  struct Row {
    QualityPlan plan;
    const char* script;
    const char* expected;  // of the quality
    const char* counters;
    int64_t downloaded;
  };
  const QualityPlan estimated{QNMediaTypeVideo, "v", numbered("s", 10), 800000, 100};
  const QualityPlan unknown{QNMediaTypeVideo, "v", numbered("s", 10), 800000, 0};
  const QualityPlan stated{QNMediaTypeVideo, "v", {"a@0+100", "b@0+50"}, 800000, 100};
  const QualityPlan mixed{QNMediaTypeVideo, "v", {"a@0+100", "b"}, 80, 10};
  const Row rows[] = {
      {estimated, "", "10000000~", "sized 10 estimated 10", 0},
      {estimated, "bytes 0 5 200", "9000200~", "sized 10 estimated 9", 5},
      {estimated, "bytes 0 5 -1", "10000000~", "sized 10 estimated 10", 5},
      {unknown, "", "?", "sized 0 estimated 0", 0},
      {unknown, "bytes 0 5 300", "?", "sized 1 estimated 0", 5},
      {unknown, "bytes 0 5 300 bytes 1 7 500", "4000~", "sized 2 estimated 0", 12},
      {unknown, "bytes 0 5 300 bytes 1 7 500 bytes 0 9 300", "4000~", "sized 2 estimated 0", 16},
      {unknown, "bytes 0 5 300 bytes 0 5 400 bytes 1 0 500", "4500~", "sized 2 estimated 0", 5},
      // A fresh total stays an estimate until the last estimate was replaced.
      {stated, "", "150~", "sized 2 estimated 0", 0},
      {stated, "bytes 0 1 90", "140~", "sized 2 estimated 0", 1},
      {mixed, "", "150~", "sized 2 estimated 1", 0},
      {mixed, "bytes 1 1 60", "160", "sized 2 estimated 0", 1},
      {mixed, "stored 0 30 stored 1 40", "70", "sized 2 estimated 0", 70},
      {mixed, "download bytes 0 30 100 bytes 1 40 60 cancel", "160", "sized 2 estimated 0", 0},
      {mixed, "download bytes 0 30 100 fail 0", "150~", "sized 2 estimated 1", 0},
      // A reset keeps the total of bytes, and so does what moves by differences from there.
      {mixed, "stored 0 30 reset", "80~", "sized 2 estimated 1", 30},
      {mixed, "stored 0 30 reset download bytes 0 10 30", "80~", "sized 2 estimated 1", 40},
      {{QNMediaTypeVideo, "v", {}, 80, 10}, "", "0", "sized 0 estimated 0", 0},
      {{QNMediaTypeVideo, "v", {"a", "b"}, 4000000000U, 1e300}, "", "?", "sized 0 estimated 0", 0},
      // Stated by a manifest that is out of its mind; the sum is off, and harmless.
      {{QNMediaTypeVideo, "v", {"a@0+9223372036854775807", "b@0+9223372036854775807"}},
       "bytes 0 1 50 bytes 1 1 60",
       "110~",
       "sized 2 estimated 0",
       2},
      {{QNMediaTypeVideo, "v", {"a", "b"}, 80, -1}, "", "?", "sized 0 estimated 0", 0},
      {{QNMediaTypeVideo, "v", {"a", "b"}, 3, 9}, "", "2~", "sized 2 estimated 2", 0},
  };
  for (const Row& row : rows) {
    make(row.plan);
    apply(row.script);
    EXPECT_EQ(render(info->expectedBytes()), row.expected) << row.script;
    EXPECT_NE(render(*info).find(row.counters), std::string::npos)
        << row.script << ": " << render(*info);
    EXPECT_EQ(info->downloadedBytes(), row.downloaded) << row.script;
    int64_t sum = 0;
    for (const auto& resource : info->resources())
      sum += resource->downloadedBytes();
    EXPECT_EQ(info->resourceBytes(), sum) << row.script;
  }
}

TEST_F(Quality, ListsTheErrorsOfWhatFailed) {
  make({QNMediaTypeVideo, "v", numbered("s", 3)});
  EXPECT_EQ(info->error(), nullptr);
  apply("download 404 2 ok 0 fail 1 fail 1 fail 1 fail 1");
  EXPECT_FALSE(info->failed()) << "not completed yet";
  apply("fail 1");
  ASSERT_TRUE(info->failed());
  const auto failure = info->error();
  EXPECT_EQ(render(failure), "QNDownloadErrorDomain -1001");
  EXPECT_EQ(std::any_cast<std::shared_ptr<QNQuality>>(failure->userInfo().at("QNQuality")),
            info->quality());
  const auto errors = std::any_cast<QNResourceErrors>(failure->userInfo().at("QNResourceErrors"));
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_EQ(render(errors.at(1)), "NSURLErrorDomain -1005");
  EXPECT_EQ(render(errors.at(2)), "QNDownloadHTTPErrorDomain 404");
}

TEST_F(Quality, HandsItsHeadersToEveryNewRequest) {
  make({QNMediaTypeVideo, "v", numbered("s", 6)});
  info->setAdditionalHeaders(std::make_shared<QNHeaders>(QNHeaders{{"X-A", "1"}}));
  apply("download");
  info->setAdditionalHeaders(std::make_shared<QNHeaders>(QNHeaders{{"X-A", "2"}}));
  apply("ok 0 fail 1");
  const auto header = [&](size_t index) {
    const auto request = info->resources()[index]->downloadTask()->originalRequest();
    return request->valueForHTTPHeaderField("X-A").value_or("none");
  };
  EXPECT_EQ(header(2), "1");
  EXPECT_EQ(header(4), "2") << "started after the change";
  EXPECT_EQ(header(1), "2") << "tried again after the change";
}

TEST_F(Quality, TakesTasksOfAnEarlierLaunchBack) {
  make({QNMediaTypeVideo, "v", numbered("s", 5)});
  const auto reattach = [&](uint64_t index, uint64_t status) {
    const auto task = controller->session->downloadTaskWithRequest(
        platform::URLRequest::requestWithURL(platform::URL::URLWithString("http://host/s1")));
    return info->reattachResource(QNResourceId("u", "v", index, status), task);
  };
  EXPECT_FALSE(reattach(5, 2)) << "out of range";
  EXPECT_TRUE(reattach(3, 1));
  EXPECT_TRUE(reattach(1, 2));
  EXPECT_FALSE(reattach(1, 2)) << "has a task";
  EXPECT_EQ(qntest::letters(*info), ".R.p.");
  EXPECT_EQ(info->numActive(), 2U);
  EXPECT_EQ(info->numRunning(), 1U);
  // Mixed tasks fall in step with the next one that completes.
  EXPECT_EQ(apply("ok 1"), "no");
  EXPECT_EQ(qntest::letters(*info), "RCRRR");
}

TEST_F(Quality, RefusesResourcesOfAnother) {
  make({QNMediaTypeVideo, "v", numbered("s", 2)});
  const auto other = info;
  make({QNMediaTypeVideo, "v", numbered("s", 2)});
  const char* const text = "Resource does not belong to this quality";
  const auto& foreign = other->resources()[0];
  const auto reasonOf = [](const auto& call) -> std::string {
    try {
      call();
    } catch (const platform::Exception& exception) {
      return exception.reason();
    }
    return "none";
  };
  EXPECT_EQ(reasonOf([&] { (void)info->resourceCompleteWithError(foreign, nullptr); }), text);
  EXPECT_EQ(reasonOf([&] { info->resourceCompleteWithBytesPreloaded(foreign, 1); }), text);
  EXPECT_EQ(reasonOf([&] { info->resourceBytesDownloadedBytesExpected(foreign, 1, 1); }), text);
}

}  // namespace
