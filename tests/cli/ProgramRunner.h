#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "platform/JSON.h"
#include "tests/support/FaultServer.h"
#include "tests/support/TempDirectory.h"

namespace qntest {

// How a process ended and what it said. A code below 0 is a signal.
struct Ended {
  int code = 0;
  std::string out;
  std::string err;

  platform::JSON json() const;  // of `out`; fails the test when it is not one JSON value
  size_t errorLines() const;
};

// A running process; killed when dropped.
class Process {
 public:
  // With `onTerminal`, standard error is a terminal of 80 x 24.
  Process(std::vector<std::string> arguments, std::vector<std::string> environment,
          bool onTerminal = false);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // Until standard error holds the text; false when it does not come.
  [[nodiscard]] bool waitForError(const std::string& text, double seconds = 30);
  // Fails the test, and kills, after the deadline.
  Ended wait(double seconds = 60);

 private:
  void _collect(int fd, std::string& into);

  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string out_;  // guarded by the mutex, like the next
  std::string err_;
  std::vector<std::thread> readers_;
};

// A home of its own for the program: download root, state and configuration in one temporary
// directory.
class ProgramRunner {
 public:
  ProgramRunner();

  std::unique_ptr<Process> start(std::vector<std::string> arguments, bool onTerminal = false) const;
  Ended run(std::vector<std::string> arguments) const {
    return start(std::move(arguments))->wait();
  }
  // "download", the URL, `arguments`, "--root", this home's root.
  std::unique_ptr<Process> startDownload(const std::string& url,
                                         std::vector<std::string> arguments = {}) const;
  Ended download(const std::string& url, std::vector<std::string> arguments = {}) const {
    return startDownload(url, std::move(arguments))->wait();
  }
  void setEnvironment(const std::string& name, const std::string& value);
  // Words before the program's name.
  void setCommandPrefix(std::vector<std::string> words) { prefix_ = std::move(words); }

  std::string root() const { return home_.path("downloads"); }
  std::string state() const { return home_.path("state"); }
  const TempDirectory& home() const { return home_; }
  // The one download directory below the root; fails the test when there is not exactly one.
  std::string onlyDownload() const;

 private:
  TempDirectory home_;
  std::vector<std::string> environment_;
  std::vector<std::string> prefix_;
};

// Serves every file below `directory` under "/<prefix>/...".
void serveDirectory(FaultServer& server, const std::string& directory, const std::string& prefix);

// All files below a directory, name to content, without those whose name begins with `without`.
std::map<std::string, std::string> filesBelow(const std::string& directory,
                                              const std::string& without = "\n");

// Runs a command of the system and gives its standard output; fails the test unless it ends with 0.
std::string runTool(const std::vector<std::string>& arguments);

inline const std::string kSample = QN_SAMPLES "/testcard";

}  // namespace qntest
