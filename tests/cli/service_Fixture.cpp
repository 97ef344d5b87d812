#include "tests/cli/service_Fixture.h"

#include <chrono>
#include <thread>

#include "platform/FileDescriptor.h"
#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/ServiceSocket.h"
#include "tests/support/Processes.h"

namespace qntest {

namespace service = platform::service;

ServiceProgramTest::ServiceProgramTest() {
  program_.setEnvironment("QN_TRANSFERD_LAUNCH_DELAY_MS", "20");
  program_.setEnvironment("QN_TRANSFERD_RECOVER_MS", "100");
  program_.setEnvironment("QN_RETRY_BOUND", "20");
}

// The service first: it would start the program again.
ServiceProgramTest::~ServiceProgramTest() {
  eventually([this] {
    const pid_t processes[] = {service(), url_.empty() ? 0 : holder()};
    for (const pid_t process : processes)
      killAndWait(process);
    return processes[0] == 0 && processes[1] == 0;
  });
}

bool ServiceProgramTest::eventually(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

Ended ServiceProgramTest::run(std::vector<std::string> arguments) const {
  arguments.insert(arguments.end(), {"--root", program_.root()});
  return program_.run(std::move(arguments));
}

Ended ServiceProgramTest::background(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), "--background");
  return program_.download(url_, std::move(arguments));
}

platform::JSON ServiceProgramTest::status() const {
  const Ended ended = run({"status", url_, "--json"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  const auto json = ended.json();
  const auto* downloads = json.find("downloads");
  return downloads && !downloads->items().empty() ? downloads->items()[0] : platform::JSON();
}

ServiceProgramTest::Now ServiceProgramTest::now() const {
  const Ended ended = run({"status", url_, "--json"});
  if (ended.code != 0) return {};
  const auto json = ended.json();
  const auto& download = json.find("downloads")->items().at(0);
  const auto text = [&](const char* name) {
    const auto* member = download.find(name);
    return member ? member->string().value_or("") : "";
  };
  const auto* process = download.find("process");
  return {text("state"), text("directory"),
          process ? static_cast<pid_t>(process->integer().value_or(0)) : 0};
}

pid_t ServiceProgramTest::service() const {
  int error = 0;
  const auto fd = service::connectTo(socketDirectory() + "/transferd.sock", &error);
  const auto welcome =
      fd ? service::greet(fd.get(), service::Hello::Kind::Hello, service::kProtocolVersion, 30'000)
         : std::nullopt;
  return welcome ? static_cast<pid_t>(welcome->process) : 0;
}

void ServiceProgramTest::noteStored(const std::string& directory) {
  const std::string path = url_.substr(server_.url("").size());
  const std::string base = path.substr(0, path.rfind('/') + 1);
  for (const auto& [name, content] : filesBelow(directory))
    stored_.emplace(base + name, server_.requestCount(base + name));
}

void ServiceProgramTest::expectStoredWasKept() const {
  EXPECT_FALSE(stored_.empty());
  for (const auto& [path, requests] : stored_)
    EXPECT_EQ(server_.requestCount(path), requests) << path << " was there";
}

}  // namespace qntest
