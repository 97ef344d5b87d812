#include "bench/transfer/Service.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/URLSession.h"
#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/ServiceSocket.h"

namespace qnbench {
namespace {

using namespace platform;

constexpr int kTransfers = 64;

double seconds(const timeval& time) {
  return double(time.tv_sec) + double(time.tv_usec) / 1e6;
}

class Reports final : public URLSessionDelegate {
 public:
  std::atomic<long> count{0};

 private:
  void URLSessionDownloadTaskDidWriteData(const std::shared_ptr<URLSession>&,
                                          const std::shared_ptr<URLSessionDownloadTask>&, int64_t,
                                          int64_t, int64_t) override {
    ++count;
  }
};

// As a download makes its tasks: a range of an address with a query, and a description.
std::shared_ptr<URLSessionDownloadTask> makeTask(URLSession& session, const std::string& url,
                                                 long index) {
  const auto request = URLRequest::requestWithURL(URL::URLWithString(url + std::to_string(index)));
  request->setValueForHTTPHeaderField(
      "bytes=" + std::to_string(index * 1'000'000) + "-" + std::to_string((index + 1) * 1'000'000),
      "Range");
  request->setValueForHTTPHeaderField("Bearer 0123456789abcdef0123456789abcdef0123456789abcdef",
                                      "Authorization");
  auto task = session.downloadTaskWithRequest(request);
  task->setTaskDescription(R"({"manifestURL":"http://127.0.0.1/movies/1234/manifest.mpd",)"
                           R"("qualityId":"video-1920x1080-4500000","resourceIndex":)" +
                           std::to_string(index) + R"(,"status":1})");
  return task;
}

}  // namespace

pid_t servicePid() {
  int error = 0;
  const FileDescriptor fd = service::connectTo(service::socketPath(), &error);
  if (!fd) return 0;
  const auto welcome =
      service::greet(fd.get(), service::Hello::Kind::Hello, service::kProtocolVersion, 10'000);
  return welcome ? static_cast<pid_t>(welcome->process) : 0;
}

Memory memoryOf(pid_t pid) {
  Memory memory;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    std::sscanf(line.c_str(), "VmHWM: %ld", &memory.peakKiB);
    std::sscanf(line.c_str(), "RssAnon: %ld", &memory.anonymousKiB);
  }
  return memory;
}

ServiceUse stopService() {
  ServiceUse use;
  const pid_t pid = servicePid();
  if (pid == 0) return use;
  use.memory = memoryOf(pid);
  ::kill(pid, SIGTERM);
  int status = 0;
  rusage usage{};
  use.ok = ::wait4(pid, &status, 0, &usage) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  use.cpu = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  return use;
}

int runHeld(const std::string& base, const std::string& work, long count, bool queued) {
  auto configuration =
      URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("bench");
  configuration.stateDirectory = work + "/state";
  configuration.maximumTransfers = kTransfers;
  configuration.maximumConnectionsPerHost = kTransfers;
  configuration.maximumBytesPerSecond = 4 << 20;
  configuration.useService = true;
  const auto reports = std::make_shared<Reports>();
  const auto session = URLSession::sessionWithConfiguration(configuration, reports);
  session->getTasksWithCompletionHandler([](const auto&) {});
  const std::string url = base + "/100000000000/movies/segment-";
  for (long i = 0; i < kTransfers; ++i)
    makeTask(*session, url, i)->resume();
  for (long i = 0; i < count; ++i) {
    const auto task = makeTask(*session, url, kTransfers + i);
    if (queued) task->resume();
  }
  // Each transfer has its buffers by now, and all that was said has been taken in.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const long wanted = reports->count + 2 * kTransfers;
  while (reports->count < wanted && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const Memory memory = memoryOf(servicePid());
  const double budget = 24 * 1024 + 64.0 * kTransfers + double(count);
  std::printf("| %7ld %-9s | %8.1f | %8.1f | %8.1f | %5.2f |\n", count,
              queued ? "queued" : "suspended", double(memory.peakKiB) / 1024,
              double(memory.anonymousKiB) / 1024, budget / 1024, double(memory.peakKiB) / budget);
  return reports->count >= wanted ? 0 : 1;
}

}  // namespace qnbench
