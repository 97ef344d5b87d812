#include "tests/transfer/MovieRun.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/TestContent.h"
#include "tests/transfer/ContractHarness.h"

namespace qntest {

namespace {

// Enough to tell by the first bytes which path a partial file belongs to.
constexpr size_t kSignature = 16;
constexpr double kLongSeconds = 1.2;  // also under a sanitizer on a busy machine

std::string firstBytes(const std::string& file) {
  std::string bytes(kSignature, '\0');
  std::ifstream in(file, std::ios::binary);
  in.read(bytes.data(), static_cast<std::streamsize>(kSignature));
  bytes.resize(static_cast<size_t>(in.gcount()));
  return bytes;
}

}  // namespace

MovieRun::MovieRun(const MoviePlan& plan) : plan_(plan) {
  plan_.baseURL = server_.url("");
  environment["QN_TEST_WRITES_BELOW"] = base_;
  plan_.generation = -1;
  nextMovie();
}

void MovieRun::nextMovie() {
  ++plan_.generation;
  std::filesystem::remove_all(root());
  whole_.clear();
  stored_.clear();
  attached_.clear();
  known_.clear();
  for (int quality = 0; quality < plan_.qualities; ++quality) {
    for (int i = 0; i < plan_.segments; ++i) {
      FaultResource resource;
      resource.size = plan_.sizeOf(i);
      resource.requiredHeaders = {{kMovieHeader, kMovieHeaderValue}};
      server_.serve(plan_.pathOf(MoviePlan::nameOf(quality, i)), resource);
    }
  }
}

void MovieRun::start(const std::string& mode) {
  requestsSeen_ = server_.requestCount();
  std::vector<std::string> arguments = commandPrefix;
  arguments.insert(arguments.end(),
                   {QN_SESSION_CHILD, mode, "state=" + state(), "partial=" + partial(),
                    "root=" + root(), "log=" + directory_.path("log")});
  const auto plan = plan_.arguments();
  arguments.insert(arguments.end(), plan.begin(), plan.end());
  arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
  child_ = std::make_unique<ChildProcess>(arguments, environment);
}

std::vector<std::string> MovieRun::log() const {
  std::vector<std::string> lines;
  std::ifstream in(directory_.path("log"));
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

std::string MovieRun::logText() const {
  std::string text;
  for (const std::string& line : log())
    text += line + "\n";
  return text;
}

bool MovieRun::waitForLine(const std::string& prefix, double seconds) const {
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<int64_t>(seconds * 1e3));
  for (;;) {
    const auto lines = log();
    for (size_t i = logLines_; i < lines.size(); ++i)
      if (lines[i].rfind(prefix, 0) == 0) return true;
    if (child_->wait(0.002) || std::chrono::steady_clock::now() >= deadline) return false;
  }
}

// Segments of a quality are started in order: a task that is made for one before another that was
// known at the launch replaces one that got lost.
void MovieRun::_readLog() {
  const auto lines = log();
  std::set<std::string> attached;
  std::map<int, int> furthest;  // quality -> segment
  const auto know = [&](const std::string& name) {
    int& last = furthest.emplace(std::stoi(name), -1).first->second;
    last = std::max(last, std::stoi(name.substr(name.find('/') + 1)));
  };
  for (const std::string& name : stored_)
    know(name);
  bool launched = false;
  for (; logLines_ < lines.size(); ++logLines_) {
    std::istringstream line(lines[logLines_]);
    std::string word, name;
    line >> word >> name;
    EXPECT_NE(word, "doubled") << lines[logLines_];
    EXPECT_NE(word, "failed") << lines[logLines_];
    if (word == "attached") {
      attached.insert(name);
      known_.insert(name);
      know(name);
    }
    if (word == "new") {
      EXPECT_EQ(stored_.count(name), 0U) << "made again: " << lines[logLines_];
      const auto known = furthest.find(std::stoi(name));
      EXPECT_FALSE(known != furthest.end() &&
                   std::stoi(name.substr(name.find('/') + 1)) < known->second)
          << "lost: a task of " << name;
    }
    if (word == "undescribed") ++figures_.undescribed;
    if (word == "whole" && known_.count(name) != 0) whole_.insert(name);
    if (word == "stored") stored_.insert(name);
    launched = launched || word == "launch";
  }
  figures_.attached += static_cast<int>(attached.size());
  if (!launched) return;
  // A task that was there is there again, or its file is where the application moved it.
  for (const std::string& name : attached_) {
    EXPECT_TRUE(attached.count(name) != 0 || std::filesystem::exists(root() + "/" + name))
        << "lost: the task of " << name;
  }
  attached_ = std::move(attached);
}

std::map<std::string, MovieRun::Asked> MovieRun::_askedSinceLaunch() {
  std::map<std::string, Asked> asked;
  const auto requests = server_.requests();
  for (size_t i = requestsSeen_; i < requests.size(); ++i) {
    const FaultRequest& request = requests[i];
    EXPECT_NE(request.status, 403) << "asked without its header: " << request.path;
    if (request.status != 200 && request.status != 206) continue;
    Asked& entry = asked.try_emplace(request.path, Asked{request.bodyStart, 0, 0}).first->second;
    entry.lastFrom = request.bodyStart;
    entry.lastAtSeconds = request.atSeconds;
  }
  return asked;
}

void MovieRun::_checkAsked(const std::map<std::string, Asked>& asked) {
  for (const auto& [path, first] : asked) {
    const auto partial = partials_.find(path);
    if (partial == partials_.end()) continue;
    EXPECT_GE(first.from, partial->second.safe) << "asked again for what was there: " << path;
    if (first.from >= partial->second.size) continue;
    figures_.partialDropped += partial->second.size - first.from;
    figures_.wholeAgain += partial->second.whole ? 1 : 0;
    figures_.oldestDroppedMs = std::max(figures_.oldestDroppedMs, partial->second.ageSeconds * 1e3);
  }
  for (const std::string& name : whole_)
    EXPECT_EQ(asked.count(plan_.pathOf(name)), 0U) << "fetched again though it was whole: " << name;
  for (const std::string& name : stored_)
    EXPECT_EQ(asked.count(plan_.pathOf(name)), 0U)
        << "fetched again though it was in place: " << name;
}

// Bytes are safe when they survived a kill before, or when their response had long been there: the
// store learns of a response a few milliseconds after its first bytes.
void MovieRun::_takePartialFiles(const std::map<std::string, Asked>& asked, double killedAt) {
  std::map<std::string, std::string> paths;
  std::map<std::string, uint64_t> sizes;
  for (int quality = 0; quality < plan_.qualities; ++quality) {
    for (int i = 0; i < plan_.segments; ++i) {
      const std::string path = plan_.pathOf(MoviePlan::nameOf(quality, i));
      paths[contentOf(path, 0, 0, kSignature)] = path;
      sizes[path] = plan_.sizeOf(i);
    }
  }
  std::map<std::string, Partial> found;
  for (const std::string& file : partialFiles(base_)) {
    const auto path = paths.find(firstBytes(file));
    if (path == paths.end()) continue;
    Partial& partial = found[path->second];
    partial.size = std::filesystem::file_size(file);
    figures_.partialBytes += partial.size;
    EXPECT_EQ(compareWithContent(file, path->second, 0, partial.size), "")
        << "these bytes were not sent";
    const auto before = partials_.find(path->second);
    const auto request = asked.find(path->second);
    if (request == asked.end()) {
      partial.safe = before != partials_.end() ? before->second.safe : 0;
    } else if ((partial.ageSeconds = killedAt - request->second.lastAtSeconds) > kLongSeconds) {
      partial.safe = partial.size;
    } else {
      partial.safe = request->second.lastFrom;
    }
    EXPECT_GE(partial.size, partial.safe) << "bytes are gone from " << file;
    partial.whole = partial.size == sizes.at(path->second);
    figures_.wholePartials += partial.whole ? 1 : 0;
    ++figures_.partials;
    if (partial.safe > 0) ++figures_.safePartials;
  }
  partials_ = std::move(found);
}

void MovieRun::killAndCheck() {
  child_->kill();
  const double killedAt = server_.seconds();
  ++figures_.kills;
  EXPECT_TRUE(server_.waitForNoConnections());
  const auto asked = _askedSinceLaunch();
  _checkAsked(asked);  // by what was known when this launch began
  _readLog();
  _takePartialFiles(asked, killedAt);
}

void MovieRun::finishAndCompare(double seconds) {
  ASSERT_TRUE(child_->wait(seconds)) << "the movie was not finished in time";
  EXPECT_EQ(child_->result(), 0);
  compare();
}

void MovieRun::compare() {
  _checkAsked(_askedSinceLaunch());
  _readLog();
  partials_.clear();
  for (int quality = 0; quality < plan_.qualities; ++quality) {
    for (int i = 0; i < plan_.segments; ++i) {
      const std::string name = MoviePlan::nameOf(quality, i);
      ASSERT_EQ(compareWithContent(root() + "/" + name, plan_.pathOf(name), 0, plan_.sizeOf(i)),
                "");
    }
  }
  EXPECT_TRUE(partialFiles(base_).empty()) << "left over: " << partialFiles(base_).front();
  _countTraffic();
}

void MovieRun::_countTraffic() {
  ++figures_.movies;
  for (int quality = 0; quality < plan_.qualities; ++quality) {
    for (int i = 0; i < plan_.segments; ++i) {
      const std::string path = plan_.pathOf(MoviePlan::nameOf(quality, i));
      figures_.bytesSent += server_.bytesSent(path);
      figures_.sentAgain += server_.bytesSentAgain(path);
    }
  }
}

std::string MovieRun::Figures::text() const {
  std::ostringstream out;
  const uint64_t divisor = static_cast<uint64_t>(std::max(kills, 1));
  out << kills << " kills, " << movies << " movies, " << bytesSent << " bytes sent, " << sentAgain
      << " of them again (" << sentAgain / divisor << " a kill, with what no process ever read); "
      << partials << " partial files with " << partialBytes / divisor << " bytes a kill, of which "
      << partialDropped / divisor << " were asked for again, none of a response older than "
      << oldestDroppedMs << " ms; " << wholePartials << " were whole, of which " << wholeAgain
      << " were asked for again; " << safePartials << " of them had to be kept; " << attached
      << " tasks attached, " << undescribed << " killed before they were described";
  return out.str();
}

}  // namespace qntest
