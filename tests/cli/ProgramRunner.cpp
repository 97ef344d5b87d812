#include "tests/cli/ProgramRunner.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qntest {
namespace {

namespace fs = std::filesystem;

void makePipe(int (&ends)[2]) {
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> list;
  for (std::string& text : texts)
    list.push_back(text.data());
  list.push_back(nullptr);
  return list;
}

}  // namespace

platform::JSON Ended::json() const {
  std::string message;
  auto value = platform::JSON::parse(out, &message);
  EXPECT_TRUE(value) << message << "\nout: " << out << "\nerr: " << err;
  return value.value_or(platform::JSON());
}

size_t Ended::errorLines() const {
  return static_cast<size_t>(std::count(err.begin(), err.end(), '\n'));
}

Process::Process(std::vector<std::string> arguments, std::vector<std::string> environment,
                 bool onTerminal) {
  int out[2];
  int err[2];
  makePipe(out);
  if (onTerminal) {
    winsize size{24, 80, 0, 0};
    EXPECT_EQ(::openpty(&err[0], &err[1], nullptr, nullptr, &size), 0);
    ::fcntl(err[0], F_SETFD, FD_CLOEXEC);
  } else {
    makePipe(err);
  }
  auto argv = pointers(arguments);
  auto envp = pointers(environment);
  pid_ = ::fork();
  if (pid_ == 0) {
    const int null = ::open("/dev/null", O_RDONLY);
    ::dup2(null, 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    if (onTerminal) ::close(err[1]);
    ::execvpe(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  EXPECT_GT(pid_, 0);
  ::close(out[1]);
  ::close(err[1]);
  outFd_ = out[0];
  errFd_ = err[0];
  readers_.emplace_back([this] { _collect(outFd_, out_); });
  readers_.emplace_back([this] { _collect(errFd_, err_); });
}

Process::~Process() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  for (auto& reader : readers_) {
    if (reader.joinable()) reader.join();
  }
  ::close(outFd_);
  ::close(errFd_);
}

void Process::_collect(int fd, std::string& into) {
  char buffer[65536];
  for (;;) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;  // a terminal whose other end is closed gives EIO
    const std::lock_guard lock(mutex_);
    into.append(buffer, static_cast<size_t>(count));
    changed_.notify_all();
  }
}

bool Process::waitForError(const std::string& text, double seconds) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                           [&] { return err_.find(text) != std::string::npos; });
}

void Process::signal(int number) const {
  ASSERT_EQ(::kill(pid_, number), 0);
}

Ended Process::wait(double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
  int status = 0;
  pid_t ended = 0;
  while ((ended = ::waitpid(pid_, &status, WNOHANG)) == 0 && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  if (ended == 0) {
    ADD_FAILURE() << "The process did not end within " << seconds << " s";
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  for (auto& reader : readers_)
    reader.join();
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), out_, err_};
}

ProgramRunner::ProgramRunner() {
  // Sanitizers report leaks of the program as its exit code, which the tests then see.
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    if (!text.starts_with("XDG_") && !text.starts_with("QN_") && !text.starts_with("HOME=")) {
      environment_.push_back(text);
    }
  }
  setEnvironment("HOME", home_.path());
  setEnvironment("QN_STATE_DIR", state());
}

void ProgramRunner::setEnvironment(const std::string& name, const std::string& value) {
  std::erase_if(environment_,
                [&](const std::string& entry) { return entry.starts_with(name + "="); });
  environment_.push_back(name + "=" + value);
}

std::unique_ptr<Process> ProgramRunner::start(std::vector<std::string> arguments,
                                              bool onTerminal) const {
  arguments.insert(arguments.begin(), QN_PROGRAM);
  arguments.insert(arguments.begin(), prefix_.begin(), prefix_.end());
  return std::make_unique<Process>(std::move(arguments), environment_, onTerminal);
}

std::unique_ptr<Process> ProgramRunner::startDownload(const std::string& url,
                                                      std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"download", url, "--root", root()});
  return start(std::move(arguments));
}

std::string ProgramRunner::onlyDownload() const {
  std::vector<std::string> found;
  if (fs::exists(root())) {
    for (const auto& entry : fs::directory_iterator(root()))
      found.push_back(entry.path().string());
  }
  EXPECT_EQ(found.size(), 1U);
  return found.empty() ? std::string() : found.front();
}

void serveDirectory(FaultServer& server, const std::string& directory, const std::string& prefix) {
  for (const auto& [name, content] : filesBelow(directory)) {
    FaultResource resource;
    resource.literal = content;
    server.serve("/" + prefix + "/" + name, resource);
  }
}

std::map<std::string, std::string> filesBelow(const std::string& directory,
                                              const std::string& without) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    const std::string name = entry.path().lexically_relative(directory).string();
    if (entry.is_regular_file() && !name.starts_with(without)) {
      files[name] = readFile(entry.path().string()).value_or("");
    }
  }
  return files;
}

std::string runTool(const std::vector<std::string>& arguments) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry; ++entry)
    environment.emplace_back(*entry);
  const Ended ended = Process(arguments, environment).wait(120);
  EXPECT_EQ(ended.code, 0) << arguments.front() << ": " << ended.err;
  return ended.out;
}

}  // namespace qntest
