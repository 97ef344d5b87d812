#include "cli/ControlOptions.h"

#include <CLI/CLI.hpp>

namespace cli {

void addServiceOptions(CLI::App& download, Options& options) {
  download.add_flag("--background", options.background,
                    "Return once the transfer service has the work");
  download.add_flag("--service", options.service,
                    "Transfer in the service: a kill of this program does not stop it");
}

void addControlCommands(CLI::App& app, Options& options,
                        const std::function<void(CLI::App*)>& addCommon) {
  const auto add = [&](const char* name, const char* description, Command command) {
    auto* subcommand = app.add_subcommand(name, description);
    addCommon(subcommand);
    subcommand->callback([&options, command] { options.command = command; });
    return subcommand;
  };
  const char* const target = "The manifest URL or the identifier that list shows";
  auto* status = add("status", "Show how far downloads are", Command::Status);
  status->add_option("URL|ID", options.target, target);
  status->add_flag("--follow", options.follow, "Until nothing moves any more");
  const struct {
    const char* name;
    const char* description;
    Command command;
  } rows[] = {
      {"pause", "Pause a download that is going on", Command::Pause},
      {"resume", "Go on with a paused download, in the background", Command::Resume},
      {"cancel", "Stop a download and drop what is not whole", Command::Cancel},
  };
  for (const auto& row : rows)
    add(row.name, row.description, row.command)
        ->add_option("URL|ID", options.target, target)
        ->required();

  auto* resumeSession = app.add_subcommand("resume-session")->group("");
  resumeSession->add_flag("--handover", options.handover);
  resumeSession->callback([&] { options.command = Command::ResumeSession; });
}

}  // namespace cli
