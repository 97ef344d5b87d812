#include <filesystem>

#include <signal.h>
#include <sys/stat.h>

#include "platform/transfer/service/ServiceSocket.h"
#include "tests/cli/service_Fixture.h"
#include "tests/support/Processes.h"

namespace qntest {
namespace {

namespace fs = std::filesystem;

const char* const kHeld = "/film/part-1-003.m4s";
constexpr int64_t kHeldBytes = 2'000;

class BackgroundTest : public ServiceProgramTest {
 protected:
  BackgroundTest() {
    serveDirectory(server_, kSample, "film");
    setURL(server_.url("/film/manifest.mpd"));
  }

  // In the background until one part hangs.
  void beginAndHold() {
    server_.script(kHeld, {Fault::hold(kHeldBytes)});
    const Ended ended = background({"--all"});
    ASSERT_EQ(ended.code, 0) << ended.err;
    ASSERT_TRUE(server_.waitForSent(kHeld, kHeldBytes, 30));
  }
  Ended follow() const { return run({"status", url(), "--follow"}); }
  void expectWhole() const {
    EXPECT_EQ(filesBelow(program_.onlyDownload(), "QNMovieDownload"), filesBelow(kSample));
  }
  size_t records() const {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(program_.state()))
      count += entry.path().string().ends_with(".qnmovie.json");
    return count;
  }
  size_t partialFiles() const {
    size_t count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(program_.state()))
      count += entry.path().parent_path().filename() == "partial";
    return count;
  }
};

TEST_F(BackgroundTest, ReturnsAtOnceAndHandsHeadersAndChoiceOver) {
  for (const auto& [name, content] : filesBelow(kSample)) {
    FaultResource resource;
    resource.literal = content;
    resource.requiredHeaders = {{"X-Token", "secret value"}};
    server_.serve("/film/" + name, resource);
  }
  server_.script(kHeld, {Fault::hold(kHeldBytes)});
  const Ended ended = background(
      {"--all", "--header", "X-Token: secret value", "--header-origin", "http://Keys", "--json"});
  ASSERT_EQ(ended.code, 0) << ended.err;
  const auto begun = ended.json();
  EXPECT_EQ(begun.find("complete")->boolean(), false);
  EXPECT_EQ(begun.find("process")->integer(), int64_t{holder()});
  ASSERT_TRUE(server_.waitForSent(kHeld, kHeldBytes, 30));
  const auto properties = readFile(program_.onlyDownload() + "/QNMovieDownloadSetProperties.json");
  EXPECT_NE(properties.value_or("").find("\"http://keys:80\""), std::string::npos);
  const auto now = status();
  EXPECT_EQ(now.find("state")->string(), "downloading");
  EXPECT_EQ(now.find("background")->boolean(), true);
  EXPECT_EQ(now.find("url")->string(), url());
  EXPECT_EQ(run({"download", url()}).code, 75) << "one process works on a download";

  server_.release(kHeld);
  const Ended followed = follow();
  EXPECT_EQ(followed.code, 0) << followed.out;
  EXPECT_EQ(state(), "complete");
  EXPECT_TRUE(eventually([this] { return holder() == 0; })) << "it ends with its work";
  expectWhole();
  EXPECT_EQ(background({"--json"}).json().find("complete")->boolean(), true);
}

TEST_F(BackgroundTest, WhatThePrepareFailsWithIsToldAndNothingRemains) {
  EXPECT_EQ(background({"--audio", "fr"}).code, 2);
  server_.script("/film/manifest.mpd", {}, Fault::page(404));
  const Ended ended = background();
  EXPECT_EQ(ended.code, 65) << ended.err;
  EXPECT_NE(ended.err.find("404"), std::string::npos) << ended.err;
  EXPECT_TRUE(fs::is_empty(program_.root()));
  EXPECT_EQ(run({"status", url()}).code, 66);
  EXPECT_EQ(run({"pause", url()}).code, 66);
}

TEST_F(BackgroundTest, AKilledProgramIsStartedAgainByTheServiceAndTheMovieCompletes) {
  beginAndHold();
  const pid_t killed = holder();
  ASSERT_NE(killed, 0);
  killAndWait(killed);
  noteStored();
  server_.release(kHeld);
  EXPECT_EQ(follow().code, 0);
  expectWhole();
  expectStoredWasKept();
}

TEST_F(BackgroundTest, AKilledForegroundDownloadInTheServiceCompletesToo) {
  server_.script(kHeld, {Fault::hold(kHeldBytes)});
  auto process = program_.startDownload(url(), {"--all", "--service"});
  ASSERT_TRUE(server_.waitForSent(kHeld, kHeldBytes, 30));
  process->signal(SIGKILL);
  EXPECT_EQ(process->wait().code, -SIGKILL);
  noteStored();
  server_.release(kHeld);
  EXPECT_EQ(follow().code, 0);
  expectWhole();
  expectStoredWasKept();
}

TEST_F(BackgroundTest, IsPausedResumedAndCancelledByUrlAndIdentifier) {
  beginAndHold();
  const std::string id = fs::path(program_.onlyDownload()).filename();
  EXPECT_EQ(run({"pause", id}).code, 0);
  EXPECT_TRUE(eventually([this] { return holder() == 0; })) << "nobody waits for a paused one";
  EXPECT_EQ(state(), "paused");
  EXPECT_EQ(run({"pause", id}).code, 0) << "also without a holder";
  EXPECT_EQ(follow().code, 1);

  server_.script(kHeld, {Fault::hold(kHeldBytes)});
  EXPECT_EQ(run({"resume", url()}).code, 0);
  ASSERT_TRUE(server_.waitForRequests(kHeld, 2));
  EXPECT_EQ(state(), "downloading");
  EXPECT_EQ(run({"cancel", url()}).code, 0);
  EXPECT_TRUE(eventually([this] { return holder() == 0 && records() == 0; }));
  EXPECT_EQ(partialFiles(), 0U);
  EXPECT_EQ(state(), "cancelled");

  server_.script(kHeld, {});
  EXPECT_EQ(background({"--all"}).code, 0);
  EXPECT_EQ(follow().code, 0);
  expectWhole();
}

TEST_F(BackgroundTest, APausedOneIsCancelledWithoutAHolder) {
  beginAndHold();
  EXPECT_EQ(run({"pause", url()}).code, 0);
  EXPECT_TRUE(eventually([this] { return holder() == 0; }));
  EXPECT_EQ(run({"cancel", url()}).code, 0);
  EXPECT_EQ(records(), 0U);
  EXPECT_EQ(partialFiles(), 0U);
}

TEST_F(BackgroundTest, AForegroundDownloadIsPausedAndResumedThroughItsOwnDownloader) {
  server_.script(kHeld, {Fault::hold(kHeldBytes), Fault::hold(kHeldBytes / 2)});
  auto process = program_.startDownload(url(), {"--all"});
  ASSERT_TRUE(server_.waitForSent(kHeld, kHeldBytes, 30));
  EXPECT_EQ(run({"pause", url()}).code, 0);
  EXPECT_EQ(state(), "paused");
  EXPECT_NE(holder(), 0) << "it waits";
  EXPECT_EQ(run({"resume", url()}).code, 0);
  EXPECT_EQ(state(), "downloading");
  EXPECT_EQ(service(), 0) << "in its own process";
  EXPECT_EQ(run({"cancel", url()}).code, 0);
  const Ended ended = process->wait();
  EXPECT_EQ(ended.code, 1);
  EXPECT_NE(ended.err.find("Cancelled"), std::string::npos) << ended.err;
}

TEST_F(BackgroundTest, OnlySaneRequestsOfThisUserReachAHolder) {
  beginAndHold();
  std::string path;
  for (const auto& entry : fs::directory_iterator(socketDirectory())) {
    const std::string name = entry.path().filename();
    if (name.starts_with("qnmovie-") && name.ends_with(".sock")) path = entry.path();
  }
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);
  ASSERT_EQ(::stat(socketDirectory().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700U);
  const struct {
    const char* what;
    std::string bytes;
    std::string answer;  // the beginning of it; empty: the connection ends
  } rows[] = {
      {"no JSON", "hello\n", "{\"error\":"},
      {"unknown", "{\"command\":\"format\"}\n", "{\"error\":"},
      {"no text", "{\"command\":[{}]}\n", "{\"error\":"},
      {"without end", std::string(10'000, 'x'), ""},
      {"status", "{\"command\":\"status\"}\n", "{\"id\":"},
  };
  for (const auto& row : rows) {
    int error = 0;
    const auto fd = platform::service::connectTo(path, &error);
    ASSERT_TRUE(fd) << row.what;
    platform::service::sendAll(fd.get(), row.bytes.data(), row.bytes.size());
    std::string answer(row.answer.empty() ? 1 : row.answer.size(), '\0');
    const bool got = platform::service::receiveAll(fd.get(), answer.data(), answer.size(), 10'000);
    EXPECT_EQ(got ? answer : "", row.answer) << row.what;
  }
  EXPECT_EQ(state(), "downloading");
}

}  // namespace
}  // namespace qntest
