// A process of an application that the tests of transfers kill, starve or keep waiting.
//   session_child MODE key=value...
// Keys: state, partial, root, log, retryBound, diskFullBound, caFile, linger (stays at the end),
// service (transfers there, which starts the same command again), noCellular, discretionary and
// those of MoviePlan. Modes: movie    downloads the plan and leaves with 0
//        leave    leaves main in the middle of the movie, with the session open
//        hold     opens the session and waits to be killed
// The process can be made to kill itself at a write: WriteCounter.cpp.

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

#include "platform/Exception.h"
#include "tests/transfer/helper/MovieApplication.h"

namespace {

using Values = std::map<std::string, std::string>;

platform::URLSessionConfiguration configurationFrom(Values& values,
                                                    const std::vector<std::string>& command) {
  auto configuration =
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
          values["identifier"]);
  configuration.stateDirectory = values["state"];
  configuration.partialDirectory = values["partial"];
  configuration.caFile = values["caFile"];
  configuration.sessionSendsLaunchEvents = true;
  if (values.count("retryBound") != 0)
    configuration.retryBoundSeconds = std::stod(values["retryBound"]);
  if (values.count("diskFullBound") != 0)
    configuration.diskFullBoundSeconds = std::stod(values["diskFullBound"]);
  configuration.allowsCellularAccess = values.count("noCellular") == 0;
  configuration.discretionary = values.count("discretionary") != 0;
  configuration.useService = values.count("service") != 0;
  if (configuration.useService)
    configuration.launchCommand = platform::LaunchCommand{command, {}, {}};
  return configuration;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::string mode = argv[1];
  Values values;
  for (int i = 2; i < argc; ++i) {
    const std::string argument = argv[i];
    const size_t equals = argument.find('=');
    if (equals != std::string::npos)
      values[argument.substr(0, equals)] = argument.substr(equals + 1);
  }
  try {
    const auto application = std::make_shared<qntest::MovieApplication>(
        qntest::MoviePlan::fromArguments(values), values["root"], values["log"]);
    application->launch(configurationFrom(values, {argv, argv + argc}));
    if (mode == "hold") pause();
    if (mode == "leave") {
      [[maybe_unused]] static auto* const open = new auto(application);
      usleep(static_cast<useconds_t>(std::stoul(values["after"])));
      return 0;
    }
    const bool done = application->waitUntilDone();
    application->write(done ? "done" : "gave up");
    if (values.count("linger") != 0) pause();
    // Closed on this thread, not in a call that the end of main cuts short: to a service that would
    // be a death.
    while (application.use_count() > 1 || application->session().use_count() > 1)
      usleep(1'000);
    return done ? 0 : 1;
  } catch (const platform::Exception& exception) {
    fprintf(stderr, "session_child: %s: %s\n", exception.name().c_str(),
            exception.reason().c_str());
    return 3;
  }
}
