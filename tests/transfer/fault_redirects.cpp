// Redirects: followed hop by hop, bounded, to http and https only; headers stay with the host that
// they were meant for.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestContent.h"
#include "tests/transfer/ContractSuite.h"

namespace qntest {
namespace {

constexpr uint64_t kSize = 50000;
const HeaderFields kSecrets = {{"Authorization", "Bearer x"}, {"Cookie", "a=b"}, {"X-Token", "t"}};

class FaultRedirects : public TransferContract {
 protected:
  FaultRedirects() {
    server.serve("/target", kSize);
    app.launch();
  }
  void expectTarget(const Application::Events& events, const std::string& content = "/target") {
    EXPECT_EQ(events.order, "wfc") << app.recorder->log();
    ASSERT_EQ(events.files.size(), 1U);
    EXPECT_EQ(compareWithContent(events.files[0], content, 0, kSize), "");
  }
  void expectError(const Application::Events& events, int64_t code) {
    EXPECT_EQ(events.summary().substr(0, 7), "c " + std::to_string(code)) << app.recorder->log();
  }
};

TEST_P(FaultRedirects, AreFollowedWhateverTheirKind) {
  for (const int status : {301, 302, 303, 307, 308}) {
    for (const std::string& location :
         {server.url("/target"), std::string("/target"), std::string("target?x=1#f")}) {
      SCOPED_TRACE(std::to_string(status) + " " + location);
      server.clearLog();
      server.script("/a", {}, Fault::redirect(location, status));
      const auto task = app.start("/a", kSecrets);
      expectTarget(app.completed(task));
      EXPECT_NE(task->response()->url()->absoluteString().find("/target"), std::string::npos)
          << "the response's URL is the one after redirects";
      EXPECT_EQ(task->originalRequest()->url()->absoluteString(), server.url("/a"));
      ASSERT_EQ(server.requestCount(), 2U);
      for (const auto& [name, value] : kSecrets)
        EXPECT_EQ(server.requests("/target").at(0).header(name), value)
            << "the same server gets all headers";
    }
  }
}

TEST_P(FaultRedirects, DoNotTakeHeadersToAnotherServer) {
  FaultServer other;
  other.serve("/target", kSize);
  for (const std::string& location : {server.url("/target", "localhost"), other.url("/target")}) {
    SCOPED_TRACE(location);
    server.script("/a", {}, Fault::redirect(location));
    HeaderFields headers = kSecrets;
    headers.emplace_back("Range", "bytes=0-" + std::to_string(kSize - 1));
    expectTarget(app.completed(app.start("/a", headers)));
    const bool same = location.find("localhost") != std::string::npos;
    const FaultRequest request = (same ? server : other).requests("/target").back();
    for (const auto& [name, value] : kSecrets)
      EXPECT_EQ(request.header(name), std::nullopt);
    EXPECT_EQ(request.header("Range"), headers.back().second)
        << "what is asked for does not change";
  }
}

TEST_P(FaultRedirects, BackToTheFirstServerDoNotBringTheHeadersBackFromAnother) {
  FaultServer other;
  server.script("/a", {}, Fault::redirect(other.url("/b")));
  other.script("/b", {}, Fault::redirect(server.url("/target")));
  expectTarget(app.completed(app.start("/a", kSecrets)));
  for (const auto& [name, value] : kSecrets)
    EXPECT_EQ(other.requests("/b").at(0).header(name), std::nullopt);
}

TEST_P(FaultRedirects, LeadOnlyToHTTP) {
  for (const std::string location : {"file:///etc/hostname", "ftp://127.0.0.1/a", "javascript:1"}) {
    SCOPED_TRACE(location);
    server.script("/a", {}, Fault::redirect(location));
    expectError(app.completed(app.start("/a")), platform::URLErrorUnsupportedURL);
  }
}

TEST_P(FaultRedirects, AreBounded) {
  server.script("/a", {}, Fault::redirect("/b"));
  server.script("/b", {}, Fault::redirect("/a"));
  expectError(app.completed(app.start("/a")), platform::URLErrorHTTPTooManyRedirects);
  EXPECT_LE(server.requestCount(), 60U);
  for (int i = 0; i < 8; ++i)
    server.script("/hop" + std::to_string(i), {}, Fault::redirect("/hop" + std::to_string(i + 1)));
  server.serve("/hop8", kSize);
  expectTarget(app.completed(app.start("/hop0")), "/hop8");
}

TEST_P(FaultRedirects, AreFollowedAgainByAResumedTransfer) {
  server.script("/a", {}, Fault::redirect("/target"));
  server.script("/target", {Fault::reset(20000)});
  harness.configuration().retryBoundSeconds = 20;
  app.relaunch();
  expectTarget(app.completed(app.start("/a", kSecrets)));
  EXPECT_EQ(server.bytesSentAgain("/target"), 0U);
}

TEST_P(FaultRedirects, ToADeadServerFailLikeTheServer) {
  FaultServer other;
  other.setRefusing(true);
  server.script("/a", {}, Fault::redirect(other.url("/b")));
  expectError(app.completed(app.start("/a")), platform::URLErrorCannotConnectToHost);
}

INSTANTIATE_TEST_SUITE_P(Real, FaultRedirects, testing::ValuesIn(realImplementations()),
                         implementationName);

}  // namespace
}  // namespace qntest
