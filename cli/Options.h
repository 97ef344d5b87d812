#pragma once

#include <string>
#include <variant>
#include <vector>

#include "cli/Choice.h"
#include "platform/URLRequest.h"

namespace cli {

enum class Command { Info, Download, List, Remove, Status, Pause, Resume, Cancel, ResumeSession };

// A parsed command line.
struct Options {
  Command command = Command::List;
  std::string target;  // the manifest (URL or path), the URL, or the URL or identifier
  std::string root;    // the download root as given, else the default one
  platform::HTTPHeaders headers;
  std::vector<std::string> headerOrigins;  // that get the headers beside the manifest's
  Choice choice;
  std::string url;  // --url: which manifest URL a file stands for
  bool resources = false;
  bool json = false;
  bool quiet = false;
  bool background = false;  // download: return once it is going on
  bool service = false;     // download: in the transfer service
  bool follow = false;      // status
  bool handover = false;    // resume-session: options come on standard input
};

// What was printed instead: the program ends with this code.
struct Answered {
  int exitCode = 0;
};

// Prints help and the version to standard output, usage errors to standard error.
std::variant<Options, Answered> parseOptions(int argc, const char* const* argv);

}  // namespace cli
