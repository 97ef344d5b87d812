// Serves one directory on 127.0.0.1 until SIGINT, SIGTERM or the end of the process that started
// it. Prints its address once it answers.
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>
#include <signal.h>
#include <sys/prctl.h>

#include "cli/DirectoryServer.h"
#include "cli/ExitCode.h"

int main(int argc, char** argv) {
  std::string directory;
  uint16_t port = 18080;
  CLI::App app("Serves a directory on 127.0.0.1", "qn-demo-server");
  app.add_option("DIRECTORY", directory, "What to serve")->required();
  app.add_option("--port", port, "0 takes a free port")->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? cli::ExitComplete : cli::ExitUsage;
  }
  // The signals are blocked before the server starts its threads, so that only sigwait sees them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  try {
    const cli::DirectoryServer server(directory, port);
    std::printf("%s\n", server.baseURL().c_str());
    std::fflush(stdout);
    int received = 0;
    sigwait(&signals, &received);
    return cli::ExitComplete;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qn-demo-server: %s\n", error.what());
    return cli::ExitIncomplete;
  }
}
