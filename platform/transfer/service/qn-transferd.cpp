// The transfer service of one user: transfers go on when an application was killed, and it is
// started again when events wait for it. Started by the library on demand, or by systemd with a
// socket.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/transfer/TransferOptions.h"
#include "platform/transfer/service/ServiceServer.h"
#include "platform/transfer/service/ServiceSocket.h"

using platform::FileDescriptor;
namespace service = platform::service;

namespace {

constexpr int kFirstSystemdDescriptor = 3;

int64_t environmentNumber(const char* name, int64_t otherwise) {
  const char* text = std::getenv(name);
  char* end = nullptr;
  const long long value = text && *text ? std::strtoll(text, &end, 10) : 0;
  return text && *text && !*end && value >= 0 ? value : otherwise;
}

// A socket that systemd listens on for us.
FileDescriptor inheritedListener() {
  const char* process = std::getenv("LISTEN_PID");
  const char* count = std::getenv("LISTEN_FDS");
  if (!process || !count || std::atol(process) != ::getpid() || std::atoi(count) < 1) return {};
  ::fcntl(kFirstSystemdDescriptor, F_SETFD, FD_CLOEXEC);
  ::fcntl(kFirstSystemdDescriptor, F_SETFL, O_NONBLOCK);
  return FileDescriptor(kFirstSystemdDescriptor);
}

// The process that was started ends once the socket listens, so whoever waits for it may connect.
void detach() {
  const pid_t child = ::fork();
  if (child < 0) return;
  if (child > 0) ::_exit(0);
  ::setsid();
  if (::chdir("/") != 0) std::perror("qn-transferd: /");
}

int run(bool detached) {
  ::umask(077);
  FileDescriptor listener = inheritedListener();
  if (!listener) {
    const std::string path = service::socketPath();
    if (const std::string why = service::prepareSocketDirectory(path); !why.empty()) {
      std::fprintf(stderr, "qn-transferd: %s\n", why.c_str());
      return 1;
    }
    int error = 0;
    listener = service::listenAt(path, &error);
    if (!listener) {
      if (error == EADDRINUSE) return 0;
      std::fprintf(stderr, "qn-transferd: cannot listen at %s: %s\n", path.c_str(),
                   std::strerror(error));
      return 1;
    }
  }
  if (detached) detach();
  service::ServiceOptions options;
  options.registryDirectory = platform::defaultStateDirectory() + "/service";
  options.idleMs = environmentNumber("QN_TRANSFERD_IDLE_MS", options.idleMs);
  options.launchDelayMs = environmentNumber("QN_TRANSFERD_LAUNCH_DELAY_MS", options.launchDelayMs);
  options.recoverAfterMs = environmentNumber("QN_TRANSFERD_RECOVER_MS", options.recoverAfterMs);
  service::ServiceServer(std::move(listener), options).run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const bool detached = argc == 2 && std::strcmp(argv[1], "--detach") == 0;
  if (argc > 2 || (argc == 2 && !detached)) {
    std::fprintf(stderr, "usage: qn-transferd [--detach]\n");
    return 2;
  }
  try {
    return run(detached);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "qn-transferd: %s\n", failure.what());
    return 1;
  }
}
