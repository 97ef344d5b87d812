// Files that change on the server between two attempts: one version is stored, never parts of two.

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/TestContent.h"
#include "tests/transfer/ContractSuite.h"

namespace qntest {
namespace {

constexpr uint64_t kSize = 200000;
constexpr int64_t kHalf = 100000;

FaultResource versionOf(int version, uint64_t size = kSize) {
  FaultResource resource;
  resource.size = size;
  resource.version = version;
  return resource;
}

struct VersionRow {
  const char* name;
  int breaks;           // attempts that break at the half, each of another version
  bool ignoresIfRange;  // 206 of the new version all the same
  bool etag, lastModified;
  uint64_t size;        // of the last version
  bool silent = false;  // and the 206 does not say of which version it is
};

std::ostream& operator<<(std::ostream& out, const VersionRow& row) {
  return out << row.name;
}

void expectOneVersion(TransferHarness& harness, const VersionRow& row) {
  harness.configuration().retryBoundSeconds = 20;
  FaultServer& server = harness.server();
  server.setChooser([&](const FaultRequest& request) {
    const int version = static_cast<int>(request.ordinal);
    const bool last = version >= row.breaks;
    FaultResource resource = versionOf(last ? row.breaks : version, last ? row.size : kSize);
    resource.etag = row.etag;
    resource.lastModified = row.lastModified;
    server.serve("/a", resource);
    Fault fault = last ? Fault{} : Fault::reset(kHalf);
    // Only the first resumed request is answered with bytes of another version.
    fault.ignoreIfRange = row.ignoresIfRange && version == row.breaks;
    if (fault.ignoreIfRange && row.silent) fault.headers = {{"ETag", ""}};
    return fault;
  });
  Application app(harness);
  app.launch();
  const auto events = app.completed(app.start("/a"));
  EXPECT_EQ(events.order, "wfc") << app.recorder->log();
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", row.breaks, row.size), "")
      << app.recorder->log();
  EXPECT_LE(server.requestCount(), static_cast<size_t>(row.breaks) + 2);
}

class FaultVersions : public testing::TestWithParam<VersionRow> {};

TEST_P(FaultVersions, AreNeverSpliced) {
  TransferHarness harness;
  expectOneVersion(harness, GetParam());
}

TEST_P(FaultVersions, AreNeverSplicedInTheService) {
  ServiceHarness harness;
  expectOneVersion(harness, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Version, FaultVersions,
    testing::Values(VersionRow{"IfRangeAnsweredWhole", 1, false, true, false, kSize},
                    VersionRow{"IfRangeIgnored", 1, true, true, false, kSize},
                    VersionRow{"DateIfRangeAnsweredWhole", 1, false, false, true, kSize},
                    VersionRow{"DateIfRangeIgnored", 1, true, false, true, kSize},
                    VersionRow{"NoTagTold", 1, true, true, false, kSize, true},
                    VersionRow{"EveryAttemptAnother", 4, false, true, false, kSize},
                    VersionRow{"BecameSmallerThanThePart", 1, false, true, false, 1000},
                    VersionRow{"BecameSmallerIfRangeIgnored", 1, true, true, false, 1000},
                    VersionRow{"BecameLarger", 1, true, true, false, kSize + 5000},
                    VersionRow{"BecameEmpty", 1, false, true, false, 0}),
    [](const auto& info) { return info.param.name; });

TEST(FaultVersion, ChangedBetweenTwoLaunches) {
  TransferHarness harness;
  FaultServer& server = harness.server();
  server.serve("/a", versionOf(0));
  server.script("/a", {Fault::hold(kHalf)});
  Application app(harness);
  app.launch();
  const auto task = app.start("/a");
  ASSERT_TRUE(app.recorder->waitForBytes(task->taskIdentifier(), kHalf));
  app.close();
  server.serve("/a", versionOf(1));
  ASSERT_EQ(app.launch().size(), 1U);
  const auto events = app.completed(task->taskIdentifier());
  EXPECT_EQ(events.order, "wfc");
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 1, kSize), "");
  EXPECT_TRUE(events.reports.at(0).first()) << "a response that starts over is recognisable";
}

TEST(FaultVersion, ChangedBeforeResumeDataWasUsed) {
  TransferHarness harness;
  FaultServer& server = harness.server();
  harness.serveBroken("/a", kSize, kHalf);
  Application app(harness);
  app.launch([&](SessionRecorder& recorder) {
    recorder.onComplete = [&](const auto& session, const auto&, const platform::ErrorPtr& error) {
      if (!error) return;
      server.serve("/a", versionOf(1));
      server.script("/a", {});
      session->downloadTaskWithResumeData(resumeDataOf(error))->resume();
    };
  });
  const auto first = app.start("/a");
  ASSERT_NE(resumeDataOf(app.completed(first).completions.at(0)), nullptr);
  ASSERT_TRUE(app.recorder->waitUntil([&] { return app.recorder->taskIdentifiers().size() == 2; }));
  const auto events = app.completed(app.recorder->taskIdentifiers().back());
  EXPECT_EQ(events.order, "wfc");
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 1, kSize), "");
}

}  // namespace
}  // namespace qntest
