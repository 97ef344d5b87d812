#include "tests/transfer/ServiceRun.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "platform/FileDescriptor.h"
#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/ServiceSocket.h"
#include "tests/support/SessionRecorder.h"
#include "tests/transfer/ContractHarness.h"

namespace qntest {
namespace {

// What other processes do is no event here.
bool eventually(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace

ServiceRun::ServiceRun(const MoviePlan& plan) : MovieRun(plan) {
  environment["XDG_RUNTIME_DIR"] = directory() + "/run";
  environment["QN_STATE_DIR"] = directory() + "/default-state";
  environment["QN_TRANSFERD"] = QN_TEST_TRANSFERD;
  environment["QN_TRANSFERD_LAUNCH_DELAY_MS"] = "10";
  extraArguments = {"service=1"};
}

// A child of the run's own is its owner's to ask how it ended.
ServiceRun::~ServiceRun() {
  processes_.killEverybody(child().pid());
  child().kill();
}

bool ServiceRun::waitForApplication(bool launched) {
  return eventually(
      [&] {
        events_.read(log());
        return events_.application() != killed_ && (events_.launched() || !launched);
      },
      2 * kEventDeadlineSeconds);
}

pid_t ServiceRun::_service() const {
  using namespace platform::service;
  int error = 0;
  const auto fd =
      connectTo(environment.at("XDG_RUNTIME_DIR") + "/QNMovieDownloader/transferd.sock", &error);
  const auto welcome =
      fd ? greet(fd.get(), Hello::Kind::Hello, kProtocolVersion, 30'000) : std::nullopt;
  return welcome ? static_cast<pid_t>(welcome->process) : 0;
}

bool ServiceRun::kill(Victim victim) {
  pid_t service = 0;
  if (victim == Victim::Service) {
    // One that was killed a moment ago may not have been replaced yet.
    EXPECT_TRUE(eventually([&] { return (service = _service()) != 0; }, kEventDeadlineSeconds));
    killAndWait(service);
  } else {
    killed_ = events_.application();
    killAndWait(killed_);
    events_.read(log());
    const bool serviceKnowsIt = events_.hasTasks() && !processes_.children(child().pid()).empty();
    if (!serviceKnowsIt) victim = Victim::Both;
  }
  ++kills[victim];
  // Between what the applications wrote.
  std::ofstream(directory() + "/log", std::ios::app)
      << "killed "
      << (victim == Victim::Application ? "application"
          : victim == Victim::Service   ? "service"
                                        : "both")
      << std::endl;
  if (victim == Victim::Both) processes_.killEverybody(child().pid());
  events_.read(log());
  if (victim != Victim::Application) events_.serviceWasKilled();
  if (victim == Victim::Both) {
    killed_ = events_.application();  // the service may have been quick
    killAndCheck();
  }
  return victim == Victim::Both;
}

size_t ServiceRun::stored() const {
  size_t files = 0;
  for (int quality = 0; quality < plan().qualities; ++quality) {
    for (int i = 0; i < plan().segments; ++i)
      files += std::filesystem::exists(root() + "/" + MoviePlan::nameOf(quality, i)) ? 1 : 0;
  }
  return files;
}

void ServiceRun::finishAndCompare(double seconds) {
  const auto all = static_cast<size_t>(plan().qualities) * static_cast<size_t>(plan().segments);
  ASSERT_TRUE(eventually([&] { return stored() == all; }, seconds))
      << stored() << " segments are stored, of " << all;
  EXPECT_TRUE(waitForApplication(true));
  ASSERT_TRUE(waitForExit(events_.application(), seconds)) << "it did not leave";
  events_.read(log());
  EXPECT_TRUE(eventually([&] { return partialFiles(state()).empty(); }, kEventDeadlineSeconds));
  compare();
}

void ServiceRun::nextMovie() {
  killed_ = events_.application();
  events_.nextMovie();
  MovieRun::nextMovie();
}

}  // namespace qntest
