// HTTP/2 as a server in use speaks it: nginx, with TLS by the authority of the test run.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/TestCA.h"
#include "tests/support/TestContent.h"
#include "tests/transfer/ChildProcess.h"
#include "tests/transfer/ContractHarness.h"

namespace qntest {
namespace {

constexpr uint64_t kSize = 150000;
constexpr int kFiles = 40;

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

uint16_t freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

bool listens(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  const bool connected =
      ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

// One request of the access log.
struct Access {
  std::string protocol, connection, uri, range;
  int status = 0;
};

class HTTP2 : public testing::Test {
 protected:
  HTTP2() {
    ca.writeTo(directory.path("ca.pem"));
    harness.configuration().caFile = directory.path("ca.pem");
    const auto issued = ca.issue({"localhost", "127.0.0.1"});
    directory.write("cert.pem", issued.certificatePem);
    directory.write("key.pem", issued.keyPem);
    for (int i = 0; i < kFiles; ++i) {
      const std::string name = "/files/" + std::to_string(i);
      directory.write("www" + name, contentOf(name, 0, 0, kSize));
    }
    // The worker must be able to read them, whoever it is.
    std::filesystem::permissions(directory.path(), std::filesystem::perms(0755));
  }

  void startServer(const std::string& extra) {
    for (int attempt = 0; attempt < 5 && !nginx; ++attempt) {
      port = freePort();
      writeConfiguration(extra);
      const bool installed = std::filesystem::exists("/usr/sbin/nginx");
      nginx = std::make_unique<ChildProcess>(
          std::vector<std::string>{installed ? "/usr/sbin/nginx" : "nginx", "-p", directory.path(),
                                   "-c", "nginx.conf", "-e", directory.path("error.log")});
      while (!listens(port) && !nginx->wait(0.01))
        continue;
      if (nginx->ended()) nginx = nullptr;
    }
    ASSERT_NE(nginx, nullptr)
        << readFile(directory.path("error.log")).value_or("nginx did not start");
  }

  void writeConfiguration(const std::string& extra) {
    std::ostringstream text;
    text << "daemon off; master_process off; pid nginx.pid; worker_processes 1;\n"
         << "events { worker_connections 256; }\n"
         << "http {\n"
         << "  log_format t '$server_protocol $connection $request_uri $status $http_range';\n"
         << "  access_log access.log t;\n";
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
      text << "  " << kind << "_temp_path tmp_" << kind << ";\n";
    text << "  server {\n"
         << "    listen 127.0.0.1:" << port << " ssl http2;\n"
         << "    ssl_certificate cert.pem; ssl_certificate_key key.pem;\n"
         << "    root www;\n"
         << "    " << extra << "\n  }\n}\n";
    directory.write("nginx.conf", text.str());
  }

  std::string url(int i) const {
    return "https://localhost:" + std::to_string(port) + "/files/" + std::to_string(i);
  }
  Application::TaskPtr start(int i) {
    const auto task = app.session->downloadTaskWithRequest(
        platform::URLRequest::requestWithURL(platform::URL::URLWithString(url(i))));
    task->resume();
    return task;
  }
  void expectFile(const Application::TaskPtr& task, int i) {
    const auto events = app.completed(task);
    EXPECT_EQ(events.order, "wfc") << app.recorder->log();
    ASSERT_EQ(events.files.size(), 1U);
    EXPECT_EQ(compareWithContent(events.files[0], "/files/" + std::to_string(i), 0, kSize), "");
  }
  std::vector<Access> accesses() const {
    std::vector<Access> found;
    std::ifstream in(directory.path("access.log"));
    for (std::string line; std::getline(in, line);) {
      Access access;
      std::istringstream(line) >> access.protocol >> access.connection >> access.uri >>
          access.status >> access.range;
      found.push_back(access);
    }
    return found;
  }

  void transferAll() {
    app.launch();
    std::vector<Application::TaskPtr> tasks;
    for (int i = 0; i < kFiles; ++i)
      tasks.push_back(start(i));
    for (int i = 0; i < kFiles; ++i)
      expectFile(tasks[static_cast<size_t>(i)], i);
  }

  TempDirectory directory;
  TestCA ca;
  TransferHarness harness;
  Application app{harness};
  std::unique_ptr<ChildProcess> nginx;
  uint16_t port = 0;
};

TEST_F(HTTP2, SharesAConnectionAmongManyTransfers) {
  startServer("");
  transferAll();
  ASSERT_TRUE(app.recorder->waitUntil([&] { return accesses().size() >= size_t{kFiles}; }));
  std::set<std::string> connections;
  for (const Access& access : accesses()) {
    EXPECT_EQ(access.protocol, "HTTP/2.0") << access.uri;
    connections.insert(access.connection);
  }
  EXPECT_LE(connections.size(), 2U);
  RecordProperty("connections", static_cast<int>(connections.size()));
}

TEST_F(HTTP2, GoesOnWhenTheServerEndsConnections) {
  startServer("keepalive_requests 7;");
  harness.configuration().retryBoundSeconds = 20;
  transferAll();
}

TEST_F(HTTP2, ContinuesFromPartialFiles) {
  startServer("limit_rate 100000;");
  app.launch();
  auto task = start(0);
  ASSERT_TRUE(app.recorder->waitForBytes(task->taskIdentifier(), 20000));
  app.close();
  task = nullptr;
  const auto tasks = app.launch();
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_GE(tasks[0]->countOfBytesReceived(), 20000);
  expectFile(tasks[0], 0);
  ASSERT_TRUE(app.recorder->waitUntil([&] { return accesses().size() >= 2; }));
  EXPECT_EQ(accesses()[1].protocol, "HTTP/2.0");
  EXPECT_EQ(accesses()[1].status, 206);
}

TEST_F(HTTP2, SurvivesTheServersDeath) {
  startServer("limit_rate 100000;");
  harness.configuration().retryBoundSeconds = 30;
  app.launch();
  const auto task = start(0);
  ASSERT_TRUE(app.recorder->waitForBytes(task->taskIdentifier(), 20000));
  nginx->kill();
  nginx = std::make_unique<ChildProcess>(std::vector<std::string>{
      std::filesystem::exists("/usr/sbin/nginx") ? "/usr/sbin/nginx" : "nginx", "-p",
      directory.path(), "-c", "nginx.conf", "-e", directory.path("error.log")});
  expectFile(task, 0);
}

}  // namespace
}  // namespace qntest
