// What a server can do wrong, one row each, in process and through the service: the file is right
// in the end, or the error is.

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/ContentHash.h"
#include "tests/support/TestContent.h"
#include "tests/transfer/ContractSuite.h"

namespace qntest {
namespace {

constexpr uint64_t kSize = 200000;
constexpr int64_t kHalf = 100000;
constexpr int64_t kMost = 180000;
// Enough for what comes right after a few attempts; rows that never come right say 0.3.
constexpr double kPatient = 20;
constexpr double kBrief = 0.3;

FaultResource sized(uint64_t size = kSize) {
  FaultResource resource;
  resource.size = size;
  return resource;
}

Fault with(Fault fault, const std::function<void(Fault&)>& change) {
  change(fault);
  return fault;
}

struct FaultRow {
  std::string name;
  std::vector<Fault> faults;  // of the first requests
  Fault then;                 // of all others
  // The delegate's calls, the error's code and the last status: "wfc", "wc -1005". A status is
  // compared only when the row names one: a body that was continued may show 200 or 206.
  std::string expected = "wfc";
  double retryBound = kPatient;
  bool nothingTwice = true;  // no byte of content was sent twice
  size_t requests = 0;       // 0: any up to kMostRequests
  FaultResource resource = sized();
  HeaderFields headers;
  std::function<void(platform::URLSessionConfiguration&)> configure;
  // A row about its own range names the part; else the file is the whole resource.
  uint64_t offset = 0;
  uint64_t size = kSize;
  std::function<void(FaultServer&, const Application::Events&)> check;
  int version = 0;  // of the bytes that arrive in the end
};

std::ostream& operator<<(std::ostream& out, const FaultRow& row) {
  return out << row.name;
}

// A retry budget that is used up by hammering is none.
constexpr size_t kMostRequests = 20;

std::vector<FaultRow> connectionRows() {
  std::vector<FaultRow> rows;
  const auto once = [&](const std::string& name, const Fault& fault) {
    FaultRow row;
    row.name = name;
    row.faults = {fault};
    row.requests = 2;
    rows.push_back(row);
  };
  const auto lasting = [&](const std::string& name, std::vector<Fault> faults, const Fault& then,
                           const std::string& expected) {
    FaultRow row;
    row.name = name;
    row.faults = std::move(faults);
    row.then = then;
    row.expected = expected;
    row.retryBound = kBrief;
    rows.push_back(row);
  };
  const Fault silent = with({}, [](Fault& f) { f.closeBeforeHead = true; });
  once("ResetBeforeTheHead", with({}, [](Fault& f) { f.resetBeforeHead = true; }));
  once("CloseBeforeTheHead", silent);
  for (const int64_t at : {int64_t{0}, int64_t{1}, kHalf, int64_t{kSize} - 1})
    once("ResetAt" + std::to_string(at), Fault::reset(at));
  once("TruncatedBody", Fault::close(kHalf));
  // The part that is missing does not exist, so the announced length was of another file.
  once("LengthTooLarge", with({}, [](Fault& f) { f.lengthDelta = 1000; }));
  rows.back().requests = 3;
  rows.back().nothingTwice = false;
  once("TruncatedChunks", with(Fault::close(kHalf), [](Fault& f) { f.chunked = true; }));
  once("HeadCutOff", with({}, [](Fault& f) { f.raw = "HTTP/1.1 200 OK\r\nContent-Le"; }));
  lasting("ResetAtEveryByteForEver", {Fault::reset(kHalf)}, Fault::reset(0), "wc -1005");
  lasting("NeverAnswered", {}, silent, "c -1005");
  lasting("NotHTTP", {}, with({}, [](Fault& f) { f.raw = "SSH-2.0-OpenSSH_9.2\r\n"; }), "c -1011");
  {
    FaultRow row;
    row.name = "ManyResetsWithProgress";
    for (int64_t i = 0; i < 5; ++i)
      row.faults.push_back(Fault::reset(20000));
    row.retryBound = 2;  // between two of them, not in all
    row.requests = 6;
    rows.push_back(row);
    row = {};
    row.name = "Stall";
    row.faults = {Fault::stall(kHalf)};
    row.requests = 2;
    row.configure = [](auto& configuration) { configuration.stallTimeoutSeconds = 0.3; };
    rows.push_back(row);
    row.name = "StallBeforeTheHead";
    row.faults = {with({}, [](Fault& f) { f.delaySeconds = 3600; })};
    rows.push_back(row);
    row.name = "StallForEver";
    row.then = Fault::stall(0);
    row.faults = {Fault::stall(kHalf)};
    row.requests = 0;
    row.retryBound = kBrief;
    row.expected = "wc -1001";
    rows.push_back(row);
    row = {};
    row.name = "SlowTrickle";  // never silent for as long as the time-out
    row.resource.size = row.size = 20000;
    row.then = with({}, [](Fault& f) { f.bytesPerSecond = 20000; });
    row.requests = 1;
    row.configure = [](auto& configuration) { configuration.stallTimeoutSeconds = 0.5; };
    rows.push_back(row);
  }
  return rows;
}

std::vector<FaultRow> statusRows() {
  std::vector<FaultRow> rows;
  for (const int status : {429, 502, 503, 504}) {
    FaultRow row;
    row.name = "Once" + std::to_string(status);
    row.faults = {Fault::page(status)};
    row.expected = "wfc 200";
    row.requests = 2;
    rows.push_back(row);
    row.name = "RetryAfter" + std::to_string(status);
    row.faults = {Fault::page(status, {{"Retry-After", "1"}}, "")};
    rows.push_back(row);
    row = {};
    row.name = "Lasting" + std::to_string(status);
    row.then = Fault::page(status);
    row.expected = "wfc " + std::to_string(status);
    row.retryBound = kBrief;
    row.size = row.then.body.size();
    rows.push_back(row);
    row.name = "LastingAfterMostOfTheFile" + std::to_string(status);
    row.faults = {Fault::reset(kMost)};
    row.expected = "wc -1005";
    row.check = [status](FaultServer&, const Application::Events& events) {
      EXPECT_EQ(httpStatusOf(events.completions.back()), status);
      EXPECT_NE(resumeDataOf(events.completions.back()), nullptr);
    };
    rows.push_back(row);
  }
  {
    FaultRow row;  // not to wait is no reason to hammer
    row.name = "RetryAfterNothing";
    row.then = Fault::page(503, {{"Retry-After", "0"}});
    row.expected = "wfc 503";
    row.retryBound = kBrief;
    row.size = row.then.body.size();
    rows.push_back(row);
  }
  for (const int status : {500, 401, 403, 404, 410}) {
    FaultRow row;
    row.name = "Page" + std::to_string(status);
    row.then = Fault::page(status);
    row.size = row.then.body.size();
    row.expected = "wfc " + std::to_string(status);
    row.requests = 1;
    rows.push_back(row);
    row.name += "WithoutABody";
    row.then.body.clear();
    row.size = 0;
    rows.push_back(row);
    row.then = Fault::page(status);
    row.size = row.then.body.size();
    row.name = "Page" + std::to_string(status) + "OnAResumedRange";
    row.faults = {Fault::reset(kHalf)};
    row.requests = 2;
    row.check = [status](FaultServer&, const Application::Events& events) {
      const auto& last = events.reports.back();
      EXPECT_TRUE(last.first()) << "the page does not count on from the partial file";
      EXPECT_EQ(last.status, status);
    };
    rows.push_back(row);
  }
  return rows;
}

std::vector<FaultRow> rangeRows() {
  std::vector<FaultRow> rows;
  // The first answer breaks at the half; the second is wrong; whatever is asked then is answered
  // right.
  const auto resumed = [&](const std::string& name,
                           const std::function<void(Fault&)>& change) -> FaultRow& {
    FaultRow row;
    row.name = name;
    row.faults = {Fault::reset(kHalf), with({}, change)};
    row.nothingTwice = false;
    rows.push_back(row);
    return rows.back();
  };
  resumed("PartWithAnotherStart", [](Fault& f) { f.rangeStartDelta = 7; });
  resumed("PartWithAnEarlierStart", [](Fault& f) { f.rangeStartDelta = -7; });
  resumed("PartThatEndsEarly", [](Fault& f) { f.rangeEndDelta = -1000; });
  resumed("PartWithAnotherTotal", [](Fault& f) { f.rangeTotalDelta = 1000; });
  resumed("PartWithASmallerTotal", [](Fault& f) { f.rangeTotalDelta = -1000; });
  resumed("PartWithoutContentRange", [](Fault& f) { f.headers = {{"Content-Range", ""}}; });
  resumed("PartWithNonsenseContentRange", [](Fault& f) {
    f.headers = {{"Content-Range", "bytes x-y/z"}};
  });
  resumed("PartInManyParts", [](Fault& f) {
    f.headers = {{"Content-Type", "multipart/byteranges; boundary=x"}, {"Content-Range", ""}};
  });
  resumed("PartCompressed", [](Fault& f) { f.gzip = true; });
  resumed("PartTruncated", [](Fault& f) { f.closeAt = 1000; }).nothingTwice = true;
  resumed("PartWithALargerLength", [](Fault& f) { f.lengthDelta = 1000; });
  resumed("WholeInsteadOfThePart", [](Fault& f) { f.ignoreRange = true; }).requests = 2;
  resumed("UnsatisfiableThoughNotWhole", [](Fault& f) { f = Fault::page(416, {}, ""); });
  resumed("UnsatisfiableOfASmallerFile", [](Fault& f) {
    f = Fault::page(416, {{"Content-Range", "bytes */1000"}}, "");
  });
  {
    // Every byte is there, but the length was not known: nothing says so before the server does.
    FaultRow row;
    row.name = "UnsatisfiableBecauseWhole";
    row.faults = {with(Fault::close(kSize), [](Fault& f) { f.chunked = true; })};
    row.requests = 2;
    rows.push_back(row);
    row = {};
    row.name = "PartsOfUnknownTotal";  // none of which says that it was the last
    row.faults = {with(Fault::reset(kHalf), [](Fault& f) { f.chunked = true; }),
                  with({}, [](Fault& f) {
                    f.rangeTotalUnknown = true;
                    f.rangeEndDelta = -50000;
                  })};
    row.then.rangeTotalUnknown = true;
    row.requests = 4;
    rows.push_back(row);
    row.name = "OwnRangeOfUnknownTotal";  // without a validator its end can be asked for
    row.headers = {{"Range", "bytes=1000-"}};
    row.offset = 1000;
    row.size = kSize - 1000;
    row.resource.etag = false;
    row.faults = {row.then, Fault::page(416, {}, "")};
    row.requests = 2;
    rows.push_back(row);
    row = {};
    row.name = "OwnRange";
    row.headers = {{"Range", "bytes=1000-50999"}};
    row.offset = 1000;
    row.size = 50000;
    row.expected = "wfc 206";
    row.requests = 1;
    rows.push_back(row);
    row.name = "OwnRangeResumed";
    row.faults = {Fault::reset(20000)};
    row.requests = 2;
    rows.push_back(row);
    row.name = "OwnRangeToTheEndResumed";
    row.headers = {{"Range", "bytes=1000-"}};
    row.size = kSize - 1000;
    rows.push_back(row);
    row.name = "OwnRangeBeyondTheEnd";  // ends at the end of the resource
    row.headers = {{"Range", "bytes=1000-999999"}};
    rows.push_back(row);
    row.name = "OwnRangeOutsideTheFile";
    row.headers = {{"Range", "bytes=999999-"}};
    row.faults = {};
    row.expected = "wfc 416";
    row.requests = 1;
    row.size = 0;
    rows.push_back(row);
    row.name = "OwnRangeAnsweredWhole";  // said so by its status; the application judges
    row.headers = {{"Range", "bytes=1000-50999"}};
    row.then.ignoreRange = true;
    row.expected = "wfc 200";
    row.offset = 0;
    row.size = kSize;
    rows.push_back(row);
    row.name = "OwnRangeAnsweredWholeInTwoGoes";  // the second is asked for as the first was
    row.headers = {{"Range", "bytes=1000-"}};
    row.then = {};
    row.faults = {with(Fault::reset(kHalf), [](Fault& f) { f.ignoreRange = f.chunked = true; })};
    row.expected = "wfc 206";
    row.nothingTwice = false;
    row.requests = 2;
    row.offset = 1000;
    row.size = kSize - 1000;
    rows.push_back(row);
    row = {};
    row.name = "OwnRangeWithAnotherStartForEver";
    row.headers = {{"Range", "bytes=1000-50999"}};
    row.then.rangeStartDelta = 1;
    row.then.rangeEndDelta = 1;
    row.retryBound = kBrief;
    row.nothingTwice = false;
    row.expected = "c -1011";
    rows.push_back(row);
  }
  return rows;
}

// Versions: the bytes of two of them are never in one file.
std::vector<FaultRow> validatorRows() {
  std::vector<FaultRow> rows;
  const auto add = [&](const std::string& name, const std::function<void(FaultRow&)>& change) {
    FaultRow row;
    row.name = name;
    row.faults = {Fault::reset(kHalf)};
    row.nothingTwice = false;
    row.requests = 2;
    change(row);
    rows.push_back(row);
  };
  add("WeakEntityTag", [](FaultRow& row) { row.resource.weakEtag = true; });
  add("NoValidator", [](FaultRow& row) { row.resource.etag = false; });
  add("LastModifiedOnly", [](FaultRow& row) {
    row.resource.etag = false;
    row.resource.lastModified = true;
    row.nothingTwice = true;
  });
  add("NoRangesAtAll", [](FaultRow& row) { row.resource.acceptsRanges = false; });
  return rows;
}

std::vector<FaultRow> framingRows() {
  std::vector<FaultRow> rows;
  const auto add = [&](const std::string& name,
                       const std::function<void(Fault&)>& change) -> FaultRow& {
    FaultRow row;
    row.name = name;
    row.then = with({}, change);
    row.expected = "wfc 200";
    row.requests = 1;
    rows.push_back(row);
    return rows.back();
  };
  add("ChunkedWithoutLength", [](Fault& f) { f.chunked = true; });
  add("NoLengthUntilClosed", [](Fault& f) { f.noLength = true; });
  add("HTTP10", [](Fault& f) { f.http10 = true; });
  add("HTTP10WithoutLength", [](Fault& f) { f.http10 = f.noLength = true; });
  add("ClosesTheKeptConnection", [](Fault& f) { f.closeAfter = true; });
  add("CompressedThoughNotAsked", [](Fault& f) { f.gzip = true; });
  // Rightly framed, but the stream in it is not whole.
  FaultRow& early = add("CompressedEndsEarly", [](Fault&) {});
  early.faults = {with({}, [](Fault& f) { f.gzip = true, f.gzipMissing = 4; }),
                  with({}, [](Fault& f) { f.gzip = f.chunked = true, f.gzipMissing = 100000; }),
                  with(Fault::close(kHalf), [](Fault& f) { f.gzip = f.noLength = true; })};
  early.requests = 4;
  FaultRow& two = add("TwoLengths", [](Fault& f) {
    f.headers = {{"X", "1\r\nContent-Length: 100000"}};
  });
  two.expected = "c -1011";
  add("CodedOtherwise", [](Fault& f) {
    f.headers = {{"Content-Encoding", "br"}};
  }).expected = "c -1016";
  // What came of it is decoded: no part of the file that a range could continue.
  FaultRow& cutOff = add("CompressedAndCutOff", [](Fault&) {});
  cutOff.faults = {with(Fault::reset(kHalf), [](Fault& f) { f.gzip = true; })};
  cutOff.requests = 2;
  cutOff.check = [](FaultServer& server, const Application::Events&) {
    EXPECT_EQ(server.requests("/a").back().header("Range"), std::nullopt);
  };
  return rows;
}

void expectEnd(TransferHarness& harness, const FaultRow& row) {
  harness.configuration().retryBoundSeconds = row.retryBound;
  if (row.configure) row.configure(harness.configuration());
  FaultServer& server = harness.server();
  server.serve("/a", row.resource);
  server.script("/a", row.faults, row.then);
  Application app(harness);
  app.launch();
  const auto task = app.start("/a", row.headers);
  const auto events = app.completed(task);
  const std::string told = app.recorder->log();
  EXPECT_EQ(events.summary().substr(0, row.expected.size()), row.expected) << told;
  if (row.expected.rfind("wfc", 0) == 0) {
    ASSERT_EQ(events.files.size(), 1U);
    if (events.status == 200 || events.status == 206) {
      EXPECT_EQ(compareWithContent(events.files[0], "/a", row.version, row.size, row.offset), "")
          << told;
    } else {
      EXPECT_EQ(readFile(events.files[0]).value_or("none").size(), row.size) << told;
    }
    // What came in one piece was hashed on its way.
    const auto hash = task->hashOfBytesReceived();
    if (hash || server.requests("/a").size() == 1) {
      EXPECT_EQ(hash, platform::ContentHash::ofFile(events.files[0])) << told;
    }
    EXPECT_EQ(events.reports.back().total, static_cast<int64_t>(row.size));
    EXPECT_EQ(events.completions, std::vector<platform::ErrorPtr>{nullptr});
  } else {
    ASSERT_EQ(events.completions.size(), 1U);
    EXPECT_EQ(events.completions[0]->domain(), platform::NSURLErrorDomain);
    EXPECT_NE(events.completions[0]->localizedDescription().find(server.url("/a")),
              std::string::npos)
        << events.completions[0]->localizedDescription();
  }
  if (row.nothingTwice) {
    EXPECT_EQ(server.bytesSentAgain("/a"), 0U);
  }
  EXPECT_LE(server.requestCount(), kMostRequests);
  if (row.requests != 0) {
    EXPECT_EQ(server.requestCount(), row.requests);
  }
  for (const FaultRequest& request : server.requests()) {
    EXPECT_EQ(request.header("Accept-Encoding").value_or("identity"), "identity");
    for (const auto& [name, value] : row.headers)
      if (name != "Range") {
        EXPECT_EQ(request.header(name), value);
      }
  }
  if (row.check) row.check(server, events);
  EXPECT_TRUE(app.recorder->waitUntil([&] { return harness.storedBytes() == 0; }))
      << "files were left";
}

class FaultTable : public testing::TestWithParam<FaultRow> {};

TEST_P(FaultTable, EndsRight) {
  TransferHarness harness;
  expectEnd(harness, GetParam());
}

TEST_P(FaultTable, EndsRightInTheService) {
  ServiceHarness harness;
  expectEnd(harness, GetParam());
}

std::string rowName(const testing::TestParamInfo<FaultRow>& info) {
  return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Connection, FaultTable, testing::ValuesIn(connectionRows()), rowName);
INSTANTIATE_TEST_SUITE_P(Status, FaultTable, testing::ValuesIn(statusRows()), rowName);
INSTANTIATE_TEST_SUITE_P(Range, FaultTable, testing::ValuesIn(rangeRows()), rowName);
INSTANTIATE_TEST_SUITE_P(Validator, FaultTable, testing::ValuesIn(validatorRows()), rowName);
INSTANTIATE_TEST_SUITE_P(Framing, FaultTable, testing::ValuesIn(framingRows()), rowName);

}  // namespace
}  // namespace qntest
