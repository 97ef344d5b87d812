#include "platform/transfer/service/ServiceLauncher.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/ServiceSocket.h"

extern char** environ;

namespace platform::service {
namespace {

constexpr int kHelloTimeoutMs = 5'000;
constexpr int kConnectAttempts = 50;
constexpr auto kConnectPause = std::chrono::milliseconds(100);

class SpawnActions {
 public:
  SpawnActions() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    for (const int fd : {0, 1, 2})
      posix_spawn_file_actions_addopen(&actions_, fd, "/dev/null", O_RDWR, 0);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setflags(&attributes_,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnActions() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  void changeDirectory(const std::string& directory) {
    posix_spawn_file_actions_addchdir_np(&actions_, directory.c_str());
  }

  pid_t spawn(const std::vector<std::string>& arguments,
              const std::vector<std::string>& environment, int* error) {
    std::vector<char*> argv = pointers(arguments);
    std::vector<char*> envp = pointers(environment);
    pid_t process = 0;
    *error = posix_spawnp(&process, argv[0], &actions_, &attributes_, argv.data(), envp.data());
    return *error == 0 ? process : 0;
  }

 private:
  static std::vector<char*> pointers(const std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (const std::string& text : texts)
      list.push_back(const_cast<char*>(text.c_str()));
    list.push_back(nullptr);
    return list;
  }

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

std::vector<std::string> environmentWith(std::map<std::string, std::string> changes) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    if (!changes.contains(text.substr(0, text.find('=')))) environment.push_back(text);
  }
  for (const auto& [name, value] : changes)
    environment.push_back(name + "=" + value);
  return environment;
}

std::string directoryOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

std::string serviceProgram() {
  if (const char* own = std::getenv("QN_TRANSFERD"); own && *own) return own;
  std::vector<std::string> places;
  char self[PATH_MAX];
  const ssize_t size = ::readlink("/proc/self/exe", self, sizeof(self));
  if (size > 0) {
    const std::string directory = directoryOf({self, static_cast<size_t>(size)});
    // Beside it; as installed, wherever the tree was moved to; as built.
    for (const char* place : {"/", "/../libexec/", "/../bin/"})
      places.push_back(directory + place);
  }
  // The library's own tree, whose "lib" may have one more level.
  Dl_info library = {};
  static const char inThisLibrary = 0;
  if (::dladdr(&inThisLibrary, &library) != 0 && library.dli_fname && *library.dli_fname == '/') {
    const std::string directory = directoryOf(library.dli_fname);
    for (const char* place : {"/../libexec/", "/../../libexec/"})
      places.push_back(directory + place);
  }
  for (const std::string& place : places) {
    const std::string program = place + "qn-transferd";
    if (::access(program.c_str(), X_OK) == 0) return program;
  }
  return QN_TRANSFERD_PATH;
}

// Returns once the service listens, or another one does; why not otherwise.
std::string startService(const ServicePlace& place) {
  int error = 0;
  const pid_t process =
      SpawnActions().spawn({place.program, "--detach"}, place.environment, &error);
  if (!process)
    return "Cannot start the transfer service " + place.program + ": " + std::strerror(error);
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return {};
}

bool askToLeave(const std::string& path) {
  int error = 0;
  FileDescriptor fd = connectTo(path, &error);
  if (!fd) return true;
  const auto answer = greet(fd.get(), Hello::Kind::Quit, kProtocolVersion, kHelloTimeoutMs);
  char end = 0;
  // It keeps the connection until everything is stored.
  return answer && answer->kind == Hello::Kind::Leaving && !receiveAll(fd.get(), &end, 1, 30'000);
}

}  // namespace

ServicePlace ServicePlace::fromEnvironment() {
  return {socketPath(), serviceProgram(), environmentWith({})};
}

FileDescriptor connectToService(const ServicePlace& place, std::string& refusal) {
  const std::string& path = place.socket;
  refusal = prepareSocketDirectory(path);
  if (!refusal.empty()) return {};
  for (int attempt = 0; attempt < kConnectAttempts; ++attempt) {
    if (attempt > 1) std::this_thread::sleep_for(kConnectPause);
    int error = 0;
    FileDescriptor fd = connectTo(path, &error);
    if (!fd) {
      refusal = "Cannot connect to the transfer service at " + path + ": " + std::strerror(error);
      if (error != ENOENT && error != ECONNREFUSED) return {};
      if (const std::string why = startService(place); !why.empty()) {
        refusal = why;
        return {};
      }
      continue;
    }
    if (!peerIsThisUser(fd.get())) {
      refusal = path + " is served by another user";
      return {};
    }
    const auto welcome = greet(fd.get(), Hello::Kind::Hello, kProtocolVersion, kHelloTimeoutMs);
    if (!welcome) {
      refusal = "What listens at " + path + " gave no answer";
      continue;
    }
    if (welcome->version == kProtocolVersion && welcome->kind == Hello::Kind::Welcome) return fd;
    if (welcome->version > kProtocolVersion) {
      refusal = "The transfer service (process " + std::to_string(welcome->process) +
                ") is of a newer version than this library";
      return {};
    }
    fd.reset();
    askToLeave(path);
  }
  return {};
}

pid_t startLaunchCommand(const LaunchCommand& command, const std::string& identifier, int* error) {
  *error = EINVAL;
  if (command.argv.empty() || command.argv[0].empty()) return 0;
  auto changes = command.environment;
  changes["QN_SESSION_IDENTIFIER"] = identifier;
  SpawnActions actions;
  if (!command.workingDirectory.empty()) actions.changeDirectory(command.workingDirectory);
  return actions.spawn(command.argv, environmentWith(std::move(changes)), error);
}

}  // namespace platform::service
