// TLS with an authority of the test run: certificates are verified, and nothing is sent to a server
// that has none.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/TestContent.h"
#include "tests/transfer/ContractSuite.h"

namespace qntest {
namespace {

constexpr uint64_t kSize = 200000;

class FaultTLS : public TransferContract {
 protected:
  FaultTLS() {
    ca.writeTo(directory.path("ca.pem"));
    harness.configuration().caFile = directory.path("ca.pem");
  }
  Application::Events fetch(FaultServer& server, const std::string& host) {
    server.serve("/a", kSize);
    if (!app.session) app.launch();
    const auto task = app.session->downloadTaskWithRequest(
        platform::URLRequest::requestWithURL(platform::URL::URLWithString(server.url("/a", host))));
    task->resume();
    return app.completed(task);
  }
  void expectRefused(FaultServer& server, const std::string& host, int64_t code) {
    const auto events = fetch(server, host);
    EXPECT_EQ(events.order, "c") << app.recorder->log();
    ASSERT_EQ(events.completions.size(), 1U);
    ASSERT_NE(events.completions[0], nullptr);
    EXPECT_EQ(events.completions[0]->code(), code) << app.recorder->log();
    EXPECT_EQ(server.requestCount(), 0U) << "a request went out to a server that was not verified";
    EXPECT_EQ(server.connectionCount(), 1U)
        << "a certificate does not become right by asking again";
  }

  TempDirectory directory;
  TestCA ca;
};

TEST_P(FaultTLS, DownloadsAndResumes) {
  FaultServer server({.ca = &ca});
  harness.configuration().retryBoundSeconds = 20;
  server.script("/a", {Fault::reset(50000), Fault::close(50000)});
  for (const std::string host : {"localhost", "127.0.0.1"}) {
    const auto events = fetch(server, host);
    EXPECT_EQ(events.order, "wfc") << app.recorder->log();
    EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
  }
  EXPECT_EQ(server.bytesSentAgain("/a"), kSize) << "once for each task";
}

TEST_P(FaultTLS, RefusesAnotherName) {
  FaultServer server({.ca = &ca, .names = {"wrong.example"}});
  expectRefused(server, "127.0.0.1", platform::URLErrorServerCertificateUntrusted);
}

TEST_P(FaultTLS, RefusesAnotherAuthority) {
  const TestCA stranger;
  FaultServer server({.ca = &stranger});
  expectRefused(server, "localhost", platform::URLErrorServerCertificateUntrusted);
}

TEST_P(FaultTLS, RefusesAnExpiredCertificate) {
  FaultServer server({.ca = &ca, .expired = true});
  expectRefused(server, "localhost", platform::URLErrorServerCertificateHasBadDate);
}

TEST_P(FaultTLS, RefusesAServerWithoutTLS) {
  FaultServer plain;
  plain.serve("/a", kSize);
  app.launch();
  std::string url = plain.url("/a");
  url.replace(0, 4, "https");
  const auto task = app.session->downloadTaskWithRequest(
      platform::URLRequest::requestWithURL(platform::URL::URLWithString(url)));
  task->resume();
  const auto events = app.completed(task);
  EXPECT_EQ(events.summary(), "c -1200") << app.recorder->log();
}

TEST_P(FaultTLS, RedirectDownToPlainTextLosesTheHeaders) {
  FaultServer plain;
  plain.serve("/b", kSize);
  FaultServer server({.ca = &ca});
  server.script("/a", {}, Fault::redirect(plain.url("/b")));
  app.launch();
  const auto request =
      platform::URLRequest::requestWithURL(platform::URL::URLWithString(server.url("/a")));
  request->setValueForHTTPHeaderField("secret", "Authorization");
  const auto task = app.session->downloadTaskWithRequest(request);
  task->resume();
  EXPECT_EQ(app.completed(task).order, "wfc");
  ASSERT_EQ(plain.requestCount(), 1U);
  EXPECT_EQ(plain.requests()[0].header("Authorization"), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Real, FaultTLS, testing::ValuesIn(realImplementations()),
                         implementationName);

}  // namespace
}  // namespace qntest
