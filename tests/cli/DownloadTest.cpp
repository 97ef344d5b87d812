#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "tests/cli/ProgramRunner.h"

namespace qntest {
namespace {

namespace fs = std::filesystem;

const char* const kOwnFiles = "QNMovieDownload";

// Polls, since what another process does to files is no event here.
template <class Condition>
bool waitUntil(Condition condition, double seconds = 30) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class DownloadTest : public ::testing::Test {
 protected:
  DownloadTest() { serveDirectory(server_, kSample, "film"); }

  std::string url() const { return server_.url("/film/manifest.mpd"); }
  // Names of what is stored, without the properties file.
  std::map<std::string, std::string> stored() const {
    return filesBelow(program_.onlyDownload(), kOwnFiles);
  }
  static std::map<std::string, std::string> sample(const std::string& withoutPrefix = "\n") {
    return filesBelow(kSample, withoutPrefix);
  }
  size_t requestsForParts() const {
    size_t count = 0;
    for (const auto& request : server_.requests())
      count += request.path.ends_with(".m4s") ? 1 : 0;
    return count;
  }
  // Starts a download and waits until `path` hangs after `bytes`.
  std::unique_ptr<Process> startAndHoldAt(const std::string& path, int64_t bytes,
                                          std::vector<std::string> arguments = {}) {
    server_.script(path, {Fault::hold(bytes)});
    auto process = program_.startDownload(url(), std::move(arguments));
    EXPECT_TRUE(server_.waitForSent(path, static_cast<uint64_t>(bytes), 30));
    return process;
  }

  // Until the files have come and lie in place, and everything that was sent lies in partial files.
  static bool waitForStored(const ProgramRunner& program, const std::vector<std::string>& names,
                            uint64_t partialBytes) {
    return waitUntil([&] {
      for (const auto& name : names) {
        if (!fs::exists(program.onlyDownload() + "/" + name)) return false;
      }
      uint64_t bytes = 0;
      std::error_code gone;  // files come and go
      for (const auto& entry : fs::recursive_directory_iterator(program.state(), gone)) {
        if (entry.path().parent_path().filename() != "partial") continue;
        const uint64_t size = entry.file_size(gone);
        if (!gone) bytes += size;
      }
      return bytes >= partialBytes;
    });
  }

  FaultServer server_;
  ProgramRunner program_;
};

TEST_F(DownloadTest, TheSampleArrivesByteForByteAndASecondRunFetchesNothing) {
  const Ended first = program_.download(url(), {"--all"});
  EXPECT_EQ(first.code, 0) << first.err;
  EXPECT_EQ(stored(), sample());
  EXPECT_NE(first.out.find("Complete: " + program_.onlyDownload()), std::string::npos) << first.out;

  server_.clearLog();
  const Ended second = program_.download(url());
  EXPECT_EQ(second.code, 0) << second.err;
  EXPECT_NE(second.out.find("nothing was fetched"), std::string::npos) << second.out;
  EXPECT_EQ(server_.requestCount(), 0U);
  const auto json = program_.download(url(), {"--json", "--quiet"}).json();
  EXPECT_EQ(json.find("complete")->boolean(), true);
  EXPECT_EQ(json.find("fetched")->boolean(), false);
  EXPECT_EQ(json.find("qualities")->items().size(), 3U) << "the choice is remembered";
  EXPECT_EQ(json.find("directory")->string(), program_.onlyDownload());
  EXPECT_EQ(server_.requestCount(), 0U);
}

TEST_F(DownloadTest, ByDefaultTheBestVideoAndTheAudioAreStored) {
  const Ended ended = program_.download(url());
  EXPECT_EQ(ended.code, 0) << ended.err;
  auto expected = sample("part-1-");
  expected.erase("init-1.mp4");
  EXPECT_EQ(stored(), expected);
}

TEST_F(DownloadTest, AChoiceIsRememberedAndCanBeWidened) {
  EXPECT_EQ(program_.download(url(), {"--video", "200p", "--audio", "none"}).code, 0);
  auto expected = sample("part-0-");
  std::erase_if(expected, [](const auto& file) {
    return file.first.starts_with("part-2-") || file.first == "init-0.mp4" ||
           file.first == "init-2.mp4";
  });
  EXPECT_EQ(stored(), expected);
  const auto list = [&] {
    return program_.run({"list", "--root", program_.root(), "--json"})
        .json()
        .find("downloads")
        ->items();
  };
  ASSERT_EQ(list().size(), 1U);
  EXPECT_EQ(list()[0].find("complete")->boolean(), true);
  EXPECT_EQ(list()[0].find("wantedQualities")->integer(), 1);

  server_.clearLog();
  EXPECT_EQ(program_.download(url(), {"--all"}).code, 0);
  EXPECT_EQ(stored(), sample());
  EXPECT_EQ(server_.requestCount("/film/part-1-001.m4s"), 0U)
      << "what is there is not fetched again";
  EXPECT_EQ(server_.requestCount("/film/manifest.mpd"), 0U);
  EXPECT_EQ(list()[0].find("wantedQualities")->integer(), 3);

  const Ended wrong = program_.download(url(), {"--video", "1p"});
  EXPECT_EQ(wrong.code, 2);
  EXPECT_NE(wrong.err.find("640x360"), std::string::npos) << wrong.err;
}

TEST_F(DownloadTest, AChoiceThatMatchesNothingLeavesNothingBehind) {
  EXPECT_EQ(program_.download(url(), {"--audio", "fr"}).code, 2);
  EXPECT_TRUE(fs::is_empty(program_.root()));
}

TEST_F(DownloadTest, AMissingSegmentFailsItsQualityAndTheRestStays) {
  server_.script("/film/part-0-003.m4s", {}, Fault::page(404));
  const Ended ended = program_.download(url(), {"--json"});
  EXPECT_EQ(ended.code, 1) << ended.err;
  EXPECT_NE(ended.err.find("part-0-003.m4s: HTTP status 404 (not found)"), std::string::npos)
      << ended.err;
  const auto json = ended.json();
  EXPECT_EQ(json.find("complete")->boolean(), false);
  const auto& video = json.find("qualities")->items()[0];
  EXPECT_EQ(video.find("complete")->boolean(), false);
  ASSERT_EQ(video.find("missing")->items().size(), 1U);
  EXPECT_EQ(video.find("missing")->items()[0].find("index")->integer(), 3);
  EXPECT_EQ(json.find("qualities")->items()[1].find("complete")->boolean(), true);
  EXPECT_EQ(server_.requestCount("/film/part-0-003.m4s"), 1U)
      << "a missing resource is not asked for again";
  auto expected = sample("part-1-");
  expected.erase("init-1.mp4");
  expected.erase("part-0-003.m4s");
  EXPECT_EQ(stored(), expected);
  const Ended list = program_.run({"list", "--root", program_.root()});
  EXPECT_NE(list.out.find("1 of 2 qualities"), std::string::npos) << list.out;

  server_.script("/film/part-0-003.m4s", {});
  server_.clearLog();
  EXPECT_EQ(program_.download(url()).code, 0);
  EXPECT_EQ(server_.requestCount(), 1U) << "only what is missing";
}

TEST_F(DownloadTest, ASignalPausesAndTheNextRunGoesOn) {
  for (const auto& [number, code] : {std::pair{SIGINT, 130}, std::pair{SIGTERM, 143}}) {
    ProgramRunner program;
    server_.clearLog();
    server_.script("/film/part-0-002.m4s", {Fault::hold(5000)});
    const auto process = program.startDownload(url(), {"--audio", "none"});
    ASSERT_TRUE(server_.waitForSent("/film/part-0-002.m4s", 5000, 30));
    // The three beside it go on to the end.
    const std::vector<std::string> others{"part-0-001.m4s", "part-0-003.m4s", "part-0-008.m4s"};
    ASSERT_TRUE(waitForStored(program, others, 5000));
    process->signal(number);
    const Ended ended = process->wait();
    EXPECT_EQ(ended.code, code) << ended.err;
    EXPECT_EQ(ended.out, "");
    EXPECT_NE(ended.err.find("Paused"), std::string::npos) << ended.err;

    server_.script("/film/part-0-002.m4s", {});
    EXPECT_EQ(program.download(url()).code, 0);
    for (const auto& [name, content] : sample())
      EXPECT_EQ(server_.bytesSentAgain("/film/" + name), 0U) << name;
    const auto files = filesBelow(program.onlyDownload(), kOwnFiles);
    EXPECT_EQ(files.count("part-0-008.m4s"), 1U);
    for (const auto& [name, content] : files)
      EXPECT_EQ(content, sample()[name]) << name;
  }
}

TEST_F(DownloadTest, GoesOnAfterAKill) {
  const std::string held = "part-0-005.m4s";
  const auto process = startAndHoldAt("/film/" + held, 3000, {"--all"});
  std::vector<std::string> others;
  for (const auto& [name, content] : sample()) {
    if (name != held) others.push_back(name);
  }
  ASSERT_TRUE(waitForStored(program_, others, 3000));
  process->signal(SIGKILL);
  EXPECT_EQ(process->wait().code, -SIGKILL);
  server_.clearLog();
  server_.script("/film/" + held, {});
  const Ended ended = program_.download(url());
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(stored(), sample());
  for (const auto& [name, content] : sample())
    EXPECT_EQ(server_.requestCount("/film/" + name), name == held ? 1U : 0U) << name;
}

TEST_F(DownloadTest, ASecondSignalEndsAtOnce) {
  const auto process = startAndHoldAt("/film/part-0-002.m4s", 100);
  process->signal(SIGINT);
  process->signal(SIGINT);
  EXPECT_EQ(process->wait(10).code, 130);
}

TEST_F(DownloadTest, OneProcessWorksOnADownloadAndOthersOnOthers) {
  const auto first = startAndHoldAt("/film/part-0-002.m4s", 100);
  const ProgramRunner other;  // with a state of its own: it knows nothing of the other's session
  for (const auto* program : {&std::as_const(program_), &other}) {
    for (const char* command : {"download", "remove"}) {
      const Ended second =
          program->run({command, url(), "--root", program_.root(), "--quiet", "--json"});
      EXPECT_EQ(second.code, 75) << second.err;
      EXPECT_EQ(second.errorLines(), 1U) << second.err;
      EXPECT_NE(second.err.find("process " + std::to_string(first->pid())), std::string::npos)
          << second.err;
    }
  }
  serveDirectory(server_, kSample, "other");
  EXPECT_EQ(program_.download(server_.url("/other/manifest.mpd")).code, 0)
      << "another download goes on beside it";
  EXPECT_NE(program_.run({"list", "--root", program_.root()}).out.find("/other/"),
            std::string::npos);
  server_.release("/film/part-0-002.m4s");
  EXPECT_EQ(first->wait().code, 0);
}

TEST_F(DownloadTest, HeadersGoWithEveryRequestAndAreRememberedPrivately) {
  for (const auto& [name, content] : sample()) {
    FaultResource resource;
    resource.literal = content;
    resource.requiredHeaders = {{"X-Key", "s3cret: yes"}, {"X-Second", "2"}};
    server_.serve("/closed/" + name, resource);
  }
  const std::string closed = server_.url("/closed/manifest.mpd");
  const Ended refused = program_.download(closed);
  EXPECT_EQ(refused.code, 65);
  EXPECT_NE(refused.err.find("the server answered 403"), std::string::npos) << refused.err;
  EXPECT_EQ(
      program_.run({"info", "--header", "X-Key: s3cret: yes", "--header", "X-Second: 2", closed})
          .code,
      0)
      << "a header takes one value, so that the URL after it is the URL";

  server_.script("/closed/part-0-002.m4s", {Fault::hold(100)});
  const auto process =
      program_.startDownload(closed, {"--header", "X-Key:s3cret: yes ", "--header", "X-Second: 2"});
  ASSERT_TRUE(server_.waitForSent("/closed/part-0-002.m4s", 100, 30));
  process->signal(SIGINT);
  EXPECT_EQ(process->wait().code, 130);
  const Ended second = program_.download(closed);
  EXPECT_EQ(second.code, 0) << second.err;

  size_t records = 0;
  for (const auto& entry : fs::recursive_directory_iterator(program_.state())) {
    struct stat info {};
    ASSERT_EQ(::stat(entry.path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0077, 0U) << entry.path();
    records += entry.path().string().ends_with(".qnmovie.json") ? 1 : 0;
  }
  EXPECT_GE(records, 1U);
}

TEST_F(DownloadTest, NewHeadersReplaceThoseOfTheTasksThatAreLeft) {
  const auto process = startAndHoldAt("/film/part-0-002.m4s", 100, {"--header", "X-Key: old"});
  process->signal(SIGINT);
  const Ended interrupted = process->wait();
  EXPECT_EQ(interrupted.code, 130) << interrupted.err;
  server_.clearLog();
  server_.script("/film/part-0-002.m4s", {});
  EXPECT_EQ(program_.download(url(), {"--header", "X-Key: new"}).code, 0);
  for (const auto& request : server_.requests())
    EXPECT_EQ(request.header("X-Key"), "new") << request.path;
}

TEST_F(DownloadTest, HeadersStayWithTheManifestsOriginAndThoseThatAreNamed) {
  FaultServer other;
  FaultResource part;
  part.size = 100;
  part.requiredHeaders = {{"X-Key", "s"}};
  other.servePrefix("/film/", part);
  FaultResource manifest;
  manifest.literal = sample()["manifest.mpd"];
  manifest.literal->insert(manifest.literal->find("<Period"),
                           "<BaseURL>" + other.url("/film/") + "</BaseURL>");
  manifest.requiredHeaders = {{"X-Key", "s"}};
  server_.serve("/film/manifest.mpd", manifest);

  const Ended kept = program_.download(url(), {"--header", "X-Key: s"});
  EXPECT_EQ(kept.code, 1) << kept.err;
  EXPECT_NE(kept.err.find("--header-origin " + other.url("")), std::string::npos) << kept.err;
  for (const auto& request : other.requests())
    EXPECT_EQ(request.header("X-Key"), std::nullopt) << request.path;
  const Ended sent = program_.download(url(), {"--header-origin", other.url("/")});
  EXPECT_EQ(sent.code, 0) << sent.err;
  server_.script("/film/manifest.mpd", {Fault::redirect(other.url("/film/part-0-001.m4s"))});
  const Ended redirected = program_.run({"info", "--header", "X-Key: s", url()});
  EXPECT_NE(redirected.err.find("headers were not sent"), std::string::npos) << redirected.err;
}

TEST_F(DownloadTest, AnotherWayToWriteTheAddressGoesOnUnderTheStoredOne) {
  EXPECT_EQ(program_.download(url(), {"--video", "worst"}).code, 0);
  server_.clearLog();
  const Ended ended = program_.download("http://127.0.0.1:1/film/manifest.mpd#there", {"--all"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_NE(ended.err.find(url()), std::string::npos) << ended.err;
  EXPECT_GT(requestsForParts(), 0U);
  EXPECT_EQ(stored(), sample());
}

TEST_F(DownloadTest, RemoveLeavesNothing) {
  for (const bool byId : {false, true}) {
    EXPECT_EQ(program_.download(url(), {"--video", "worst"}).code, 0);
    const std::string id = fs::path(program_.onlyDownload()).filename();
    const Ended ended = program_.run({"remove", byId ? id : url(), "--root", program_.root()});
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_TRUE(fs::is_empty(program_.root()));
    // Locks of sockets stay: taking them away would let two processes in.
    for (const auto& [name, bytes] : filesBelow(program_.state()))
      EXPECT_TRUE(name.ends_with(".lock")) << name;
  }
  const char* const unknown[] = {"http://127.0.0.1:1/x", "0123456789abcdef-0123456789abcdef",
                                 "../film", "."};
  for (const char* target : unknown) {
    EXPECT_EQ(program_.run({"remove", target, "--root", program_.root()}).code, 66) << target;
  }
  EXPECT_EQ(program_.run({"remove", url(), "--root", program_.home().path("nowhere")}).code, 66);
  EXPECT_FALSE(fs::exists(program_.home().path("nowhere")));
}

TEST_F(DownloadTest, ADamagedManifestIsToldAndCanBeRemoved) {
  EXPECT_EQ(program_.download(url(), {"--video", "worst"}).code, 0);
  std::ofstream(program_.onlyDownload() + "/manifest.mpd") << "<html/>";
  const Ended ended = program_.download(url());
  EXPECT_EQ(ended.code, 65);
  EXPECT_EQ(ended.errorLines(), 1U) << ended.err;
  EXPECT_EQ(program_.run({"remove", url(), "--root", program_.root()}).code, 0);
  EXPECT_TRUE(fs::is_empty(program_.root()));
}

TEST_F(DownloadTest, FailuresBeforeTheStartAreOneLineAndLeaveNothingBehind) {
  const auto serve = [&](const std::string& path, const std::string& text) {
    FaultResource resource;
    resource.literal = text;
    server_.serve(path, resource);
    return server_.url(path);
  };
  const std::string begin =
      "<MPD xmlns='urn:mpeg:dash:schema:mpd:2011' profiles='urn:mpeg:dash:profile:isoff-live:2011' "
      "minBufferTime='PT1S' mediaPresentationDuration='PT4S'><Period><AdaptationSet "
      "contentType='video' "
      "mimeType='video/mp4'><Representation id='v' bandwidth='1000' codecs='avc1.4d401f'>";
  const std::string end = "</Representation></AdaptationSet></Period></MPD>";
  const std::string file = program_.home().write("file", "");
  struct Row {
    std::string url;
    std::string root;
    int code;
  };
  const Row rows[] = {
      {serve("/html", "<html><b>\x1b[2Jno</b></html>"), "", 65},
      {serve("/empty", ""), "", 65},
      {serve("/template", begin + "<SegmentTemplate media='$Nope$' duration='2'/>" + end), "", 65},
      {serve(
           "/huge",
           begin + "<SegmentTemplate media='$Number$' timescale='1000000000' duration='1'/>" + end),
       "", 65},
      {server_.url("/missing"), "", 65},
      {"http://127.0.0.1:1/m.mpd", "", 66},
      {url(), file, 73},
      {url(), file + "/below", 73},
  };
  for (const Row& row : rows) {
    const std::string root = row.root.empty() ? program_.root() : row.root;
    const Ended ended = program_.run({"download", row.url, "--root", root, "--json"});
    EXPECT_EQ(ended.code, row.code) << row.url << "\n" << ended.err;
    EXPECT_EQ(ended.errorLines(), 1U) << row.url << "\n" << ended.err;
    EXPECT_EQ(ended.err.find('\x1b'), std::string::npos);
    EXPECT_NE(ended.json().find("error"), nullptr) << row.url;
    if (row.root.empty()) {
      EXPECT_TRUE(fs::is_empty(root)) << row.url;
    }
  }
}

TEST_F(DownloadTest, DrawsOnATerminalAndShowsStoredBytesAfterAResume) {
  const auto process = startAndHoldAt("/film/part-0-008.m4s", 100, {"--audio", "none"});
  ASSERT_TRUE(waitForStored(program_, {"part-0-005.m4s", "part-0-006.m4s", "part-0-007.m4s"}, 100));
  process->signal(SIGINT);
  EXPECT_EQ(process->wait().code, 130);
  server_.script("/film/part-0-008.m4s", {});
  const Ended ended = program_.start({"download", url(), "--root", program_.root()}, true)->wait();
  EXPECT_EQ(ended.code, 0) << ended.err;
  const size_t first = ended.err.find('%');
  ASSERT_NE(first, std::string::npos) << ended.err;
  const std::string line = ended.err.substr(first, ended.err.find('\n', first) - first);
  const double kilobytes = std::strtod(line.c_str() + 1, nullptr);
  EXPECT_GE(kilobytes, 190) << "seven of eight segments were there: " << line;
  EXPECT_LE(kilobytes, 230) << line;
  EXPECT_NE(ended.err.find("\x1b["), std::string::npos);
  EXPECT_EQ(ended.out.find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace qntest
