#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/support/FaultServer.h"
#include "tests/support/TempDirectory.h"
#include "tests/transfer/ChildProcess.h"
#include "tests/transfer/MoviePlan.h"

namespace qntest {

// A movie on a server of the test, and the process that downloads it, launch after launch. What
// must hold at every instant is checked after each end of the process.
class MovieRun {
 public:
  explicit MovieRun(const MoviePlan& plan);
  virtual ~MovieRun() = default;

  MoviePlan& plan() { return plan_; }
  const MoviePlan& plan() const { return plan_; }
  FaultServer& server() { return server_; }
  // Further "key=value" arguments of the child, and what stands before its command line.
  std::vector<std::string> extraArguments, commandPrefix;
  std::map<std::string, std::string> environment;

  std::string directory() const { return directory_.path(); }
  std::string state() const { return base_ + "/state"; }
  std::string partial() const { return base_ + "/partial"; }
  std::string root() const { return base_ + "/root"; }
  // Where everything of the child's but its log lies; below the test's directory unless set.
  void setBase(const std::string& base) { base_ = base; }

  void start(const std::string& mode = "movie");
  ChildProcess& child() { return *child_; }
  bool waitForLine(const std::string& prefix, double seconds) const;
  std::vector<std::string> log() const;  // of all launches
  std::string logText() const;

  // Kills the process and expects that what it had is there: nothing lost or doubled, nothing whole
  // fetched again and no byte of a partial file.
  void killAndCheck();
  // Waits for a good end and compares every file.
  virtual void finishAndCompare(double seconds = 60);
  // The same identifier and store, another movie, an empty download root.
  void nextMovie();

  struct Figures {
    int kills = 0;
    int movies = 0;
    uint64_t bytesSent = 0;     // of content, by the server
    uint64_t sentAgain = 0;     // of those, more than once; counts what a killed process never read
    int partials = 0;           // partial files at the kills
    int safePartials = 0;       // of those, with bytes that had to be kept
    uint64_t partialBytes = 0;  // in them
    uint64_t partialDropped = 0;  // of those, asked for again
    double oldestDroppedMs = 0;   // between the first byte of such a response and the kill
    int wholePartials = 0;        // partial files of full size at the kills
    int wholeAgain = 0;           // of those, asked for again
    int attached = 0;             // tasks found by launches
    int undescribed = 0;
    std::string text() const;
  };
  const Figures& figures() const { return figures_; }

 protected:
  void compare();

 private:
  struct Asked {
    uint64_t from = 0;  // by the first request
    uint64_t lastFrom = 0;
    double lastAtSeconds = 0;
  };
  // By path, since the launch.
  std::map<std::string, Asked> _askedSinceLaunch();
  void _checkAsked(const std::map<std::string, Asked>& asked);
  void _readLog();
  void _takePartialFiles(const std::map<std::string, Asked>& asked, double killedAt);
  void _countTraffic();

  MoviePlan plan_;
  TempDirectory directory_;
  std::string base_ = directory_.path("device");
  FaultServer server_;
  std::unique_ptr<ChildProcess> child_;
  Figures figures_;
  size_t logLines_ = 0;           // read so far
  size_t requestsSeen_ = 0;       // of the server's log, before this launch
  std::set<std::string> stored_;  // names of files that are in place
  std::set<std::string> whole_;   // names of files that were offered, of tasks that the store knew
  std::set<std::string> attached_;  // names of tasks that the last launch found
  std::set<std::string> known_;     // names of tasks that any launch found
  struct Partial {
    uint64_t size = 0;
    uint64_t safe = 0;  // of these, bytes that may not be asked for again
    bool whole = false;
    double ageSeconds = 0;  // of its response
  };
  std::map<std::string, Partial> partials_;  // by path, at the launch
};

}  // namespace qntest
