#include "cli/Program.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "cli/Background.h"
#include "cli/Console.h"
#include "cli/ControlCommands.h"
#include "cli/DownloadCommand.h"
#include "cli/Failure.h"
#include "cli/InfoCommand.h"
#include "cli/Interrupt.h"
#include "cli/ListCommand.h"
#include "cli/Options.h"
#include "cli/RemoveCommand.h"
#include "platform/host/QNLog.h"
#include "qnc/qncLog.h"

namespace cli {
namespace {

// What the library logs goes through the console, so that it does not tear the live lines and
// cannot drive the terminal. Tolerated oddities of manifests, of which there can be thousands, are
// shown only to whoever sets QN_LOG_LEVEL.
void installLogs() {
  QNSetLogTap(nullptr, [](int, const std::string& message) { Console::shared().note(message); });
  qnc::debug::Log::setSink([](const qnc::debug::Log::Record&, std::string_view line) {
    Console::shared().note(std::string(line));
  });
  if (!std::getenv("QN_LOG_LEVEL")) qnc::debug::Log::setLevel(qnc::debug::Level::FATAL);
}

int runCommand(const Options& options) {
  switch (options.command) {
    case Command::Info:
      return runInfo(options);
    case Command::Download:
      return options.background ? runInBackground(options) : runDownload(options);
    case Command::List:
      return runList(options);
    case Command::Remove:
      return runRemove(options);
    case Command::Status:
      return runStatus(options);
    case Command::Pause:
    case Command::Resume:
    case Command::Cancel:
      return runControl(options);
    case Command::ResumeSession:
      return runResumeSession(options);
  }
  return ExitUsage;
}

void tell(const Failure& failure, bool json) {
  Console::shared().setLive({});
  Console::shared().fail(failure.message(), failure.details());
  if (!json) return;
  platform::JSON result = failure.result();
  if (result.isNull()) result.set("error", failure.message());
  std::puts(result.dump().c_str());
}

int runTelling(const Options& options) {
  try {
    return runCommand(options);
  } catch (const Failure& failure) {
    tell(failure, options.json);
    return failure.code();
  } catch (const std::bad_alloc&) {
    tell(Failure(ExitIncomplete, "Out of memory"), options.json);
  } catch (const std::exception& error) {
    tell(Failure(ExitIncomplete, error.what()), options.json);
  }
  return ExitIncomplete;
}

}  // namespace

int runProgram(int argc, const char* const* argv) {
  try {
    const auto parsed = parseOptions(argc, argv);
    if (const auto* answered = std::get_if<Answered>(&parsed)) return answered->exitCode;
    const auto& options = std::get<Options>(parsed);
    Interrupt::install();
    installLogs();
    Console::shared().setQuiet(options.quiet);
    const int exitCode = runTelling(options);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
      Console::shared().fail("Cannot write to standard output");
      return ExitCannotWrite;
    }
    return exitCode;
  } catch (const std::exception& error) {
    Console::shared().fail(error.what());
  } catch (...) {
    Console::shared().fail("Unknown failure");
  }
  return ExitIncomplete;
}

}  // namespace cli
