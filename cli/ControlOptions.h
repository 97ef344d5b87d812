#pragma once

#include <functional>

#include "cli/Options.h"

namespace CLI {
class App;
}

namespace cli {

// What has to do with the transfer service on the command line: `--background` and `--service` of
// `download`, and the commands that reach a download that is going on. `addCommon` adds what every
// command takes, `--root` among it.
void addServiceOptions(CLI::App& download, Options& options);
void addControlCommands(CLI::App& app, Options& options,
                        const std::function<void(CLI::App*)>& addCommon);

}  // namespace cli
