#include "cli/Background.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/Console.h"
#include "cli/DownloadCommand.h"
#include "cli/Failure.h"
#include "cli/Place.h"
#include "cli/Record.h"
#include "cli/Text.h"
#include "platform/FileDescriptor.h"

extern char** environ;

namespace cli {
namespace {

using platform::FileDescriptor;
using platform::JSON;

constexpr size_t kMaximumMessage = 16 << 20;

// --- Texts through pipes

std::string readAll(int fd) {
  std::string text;
  char buffer[4096];
  while (text.size() < kMaximumMessage) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

struct Pipe {
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
      throw Failure(ExitIncomplete, std::string("pipe: ") + std::strerror(errno));
    read.reset(ends[0]);
    write.reset(ends[1]);
  }
  FileDescriptor read;
  FileDescriptor write;
};

std::string ownPath() {
  char path[PATH_MAX];
  const ssize_t size = ::readlink("/proc/self/exe", path, sizeof path);
  if (size <= 0 || size == sizeof path) throw Failure(ExitIncomplete, "Cannot find this program");
  return {path, static_cast<size_t>(size)};
}

// --- The options on their way

JSON handover(const Options& options) {
  JSON json = JSON::object();
  json.set("url", options.target);
  json.set("root", options.root);
  json.set("choice", toJSON(options.choice));
  JSON headers = JSON::object();
  for (const auto& [name, value] : options.headers.fields())
    headers.set(name, value);
  json.set("headers", std::move(headers));
  json.set("headerOrigins", toJSON(options.headerOrigins));
  return json;
}

Options takeOver(const JSON& json) {
  Options options;
  options.command = Command::Download;
  const auto text = [&](const char* key) {
    const JSON* member = json.find(key);
    return member ? member->string().value_or("") : "";
  };
  options.target = text("url");
  options.root = text("root");
  if (const JSON* choice = json.find("choice")) options.choice = choiceFromJSON(*choice);
  if (const JSON* headers = json.find("headers")) {
    for (const auto& [name, value] : headers->members())
      options.headers.set(name, value.string().value_or(""));
  }
  options.headerOrigins = stringsFromJSON(json.find("headerOrigins"));
  return options;
}

JSON toJSON(const Failure& failure) {
  JSON json = JSON::object();
  json.set("code", static_cast<int>(failure.code()));
  json.set("message", failure.message());
  JSON details = JSON::array();
  for (const std::string& line : failure.details())
    details.append(line);
  json.set("details", std::move(details));
  json.set("result", failure.result());
  return json;
}

[[noreturn]] void throwFailure(const JSON& json, int code) {
  const JSON* message = json.find("message");
  std::vector<std::string> details;
  if (const JSON* lines = json.find("details")) {
    for (const JSON& line : lines->items())
      details.push_back(line.string().value_or(""));
  }
  const JSON* result = json.find("result");
  throw Failure(static_cast<ExitCode>(code), message ? message->string().value_or("") : "",
                std::move(details))
      .withResult(result ? *result : JSON());
}

// --- Starting

// In a process session of its own, so that neither the terminal nor its end reaches it.
pid_t spawnDetached(int input, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_adddup2(&actions, input, 0);
  posix_spawn_file_actions_adddup2(&actions, output, 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  sigset_t set;
  sigemptyset(&set);
  posix_spawnattr_setsigmask(&attributes, &set);
  sigfillset(&set);
  posix_spawnattr_setsigdefault(&attributes, &set);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const std::string program = ownPath();
  const char* const arguments[] = {program.c_str(), "resume-session", "--handover", nullptr};
  pid_t process = 0;
  const int error = ::posix_spawn(&process, program.c_str(), &actions, &attributes,
                                  const_cast<char* const*>(arguments), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0)
    throw Failure(ExitIncomplete, "Cannot start " + program + ": " + std::strerror(error));
  return process;
}

// What the process told when it had begun. Throws what it failed with.
JSON startAndWait(const JSON& handover) {
  Pipe input;
  Pipe output;
  const pid_t process = spawnDetached(input.read.get(), output.write.get());
  input.read.reset();
  output.write.reset();
  writeAll(input.write.get(), handover.dump());
  input.write.reset();
  const auto told = JSON::parse(readAll(output.read.get()));
  if (told) {
    const JSON* code = told->find("code");
    if (code) throwFailure(*told, static_cast<int>(code->integer().value_or(ExitIncomplete)));
    JSON begun = *told;
    begun.set("background", true);
    begun.set("process", int64_t{process});
    return begun;
  }
  int status = 0;
  ::waitpid(process, &status, 0);
  throw Failure(ExitIncomplete, "The process in the background ended before it had begun");
}

// --- Being started

// Standard output, on which the starter listens until something was said.
class Starter {
 public:
  Starter() : fd_(::fcntl(1, F_DUPFD_CLOEXEC, 3)) {
    const FileDescriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    ::dup2(null.get(), 0);
    ::dup2(null.get(), 1);
  }
  bool tell(const JSON& json) {
    if (!fd_) return true;
    const bool told = writeAll(fd_.get(), json.dump());
    fd_.reset();
    return told;
  }
  bool wasTold() const { return !fd_; }

 private:
  FileDescriptor fd_;
};

// For whoever asks for the state later.
void remember(const Options& options, const Failure& failure) {
  // Another process is at it: that is no end.
  if (failure.code() == ExitHeld) return;
  try {
    const Place place = Place::forTarget(options.root, options.target);
    auto record = Record::read(place.recordPath);
    if (!record) return;
    record->outcome = {failure.code(), failure.message()};
    record->write(place.recordPath);
  } catch (const Failure&) {
    // It is not remembered, then.
  }
}

int runHandedOver() {
  const auto json = JSON::parse(readAll(0));
  Starter starter;
  const Options options = takeOver(json ? *json : JSON());
  try {
    return runDownload(options, Headless{[&](const JSON& begun) { return starter.tell(begun); }});
  } catch (const Failure& failure) {
    if (starter.wasTold()) remember(options, failure);
    starter.tell(toJSON(failure));
    return failure.code();
  } catch (const std::exception& error) {
    const Failure failure(ExitIncomplete, error.what());
    if (starter.wasTold()) remember(options, failure);
    starter.tell(toJSON(failure));
    return ExitIncomplete;
  }
}

int runLaunched(const std::string& identifier) {
  const auto place = Place::forSession(identifier);
  const auto record = place ? Record::read(place->recordPath) : std::nullopt;
  // Cancelled, removed or paused meanwhile.
  if (!record || record->intent == Record::Intent::Pause) return ExitComplete;
  Options options;
  options.command = Command::Download;
  options.target = record->url;
  options.root = record->root;
  try {
    return runDownload(options, Headless{[](const JSON&) { return true; }});
  } catch (const Failure& failure) {
    remember(options, failure);
    throw;
  }
}

}  // namespace

int runInBackground(const Options& options) {
  const JSON begun = startAndWait(handover(options));
  const bool complete = begun.find("complete")->boolean().value_or(false);
  if (options.json) {
    std::puts(begun.dump().c_str());
    return ExitComplete;
  }
  const std::string directory = begun.find("directory")->string().value_or("");
  const std::string line =
      (complete ? "Complete already, nothing was fetched: " : "Going on in the background: ") +
      forTerminal(directory) + "\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
  return ExitComplete;
}

JSON goOnInBackground(const Place& place) {
  const auto record = Record::read(place.recordPath);
  Options options;
  options.root = place.root;
  options.target = record ? record->url : place.storedURL();
  return startAndWait(handover(options));
}

int runResumeSession(const Options& options) {
  if (options.handover) return runHandedOver();
  const char* identifier = std::getenv("QN_SESSION_IDENTIFIER");
  if (!identifier || !*identifier)
    throw Failure(ExitUsage, "resume-session is for the transfer service to start");
  return runLaunched(identifier);
}

platform::LaunchCommand launchCommand() {
  platform::LaunchCommand command;
  command.argv = {ownPath(), "resume-session"};
  // Paths in the environment may be relative.
  std::error_code unknown;
  command.workingDirectory = std::filesystem::current_path(unknown).string();
  for (char** entry = environ; *entry; ++entry) {
    const std::string_view text = *entry;
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view name = text.substr(0, equals);
    const bool decides = name == "HOME" || name.starts_with("XDG_") || name.starts_with("QN_") ||
                         name.ends_with("_proxy") || name.ends_with("_PROXY") ||
                         name.starts_with("SSL_CERT_");
    if (decides) command.environment[std::string(name)] = text.substr(equals + 1);
  }
  return command;
}

}  // namespace cli
