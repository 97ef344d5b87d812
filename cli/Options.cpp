#include "cli/Options.h"

#include <iostream>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/ControlOptions.h"
#include "cli/ExitCode.h"
#include "cli/Failure.h"
#include "cli/Text.h"
#include "platform/FileManager.h"
#include "platform/URL.h"

namespace cli {
namespace {

const char* const kFooter =
    "Exit codes: 0 complete, 1 incomplete, 2 usage, 65 not a usable manifest, 66 not reachable or "
    "no such file or "
    "download,\n73 cannot write or disk full, 75 held by another process, 130 or 143 interrupted.";

// Adds an option that may be repeated and takes one value each time. Without the limit, CLI11 lets
// a list option swallow the arguments that follow it, also the URL.
CLI::Option* addRepeatable(CLI::App* app, const std::string& name, std::vector<std::string>& values,
                           const std::string& description) {
  return app->add_option(name, values, description)->allow_extra_args(false);
}

struct Parsed {
  Options options;
  std::vector<std::string> headers;
  std::vector<std::string> origins;

  void addCommon(CLI::App* app) {
    app->add_flag("--json", options.json, "Print the result as one JSON object");
    app->add_flag("--quiet", options.quiet, "No progress and no notices");
  }
  void addRoot(CLI::App* app) {
    app->add_option("--root", options.root,
                    "Where downloads lie (default: QNMovieDownloader in your documents)");
  }
  void addHeaders(CLI::App* app) {
    addRepeatable(app, "--header", headers,
                  "Sent with every request to the manifest's origin; may be repeated")
        ->type_name("'NAME: VALUE'");
  }
  void addOrigins(CLI::App* app) {
    addRepeatable(app, "--header-origin", origins,
                  "Headers go to this origin as well; may be repeated")
        ->type_name("SCHEME://HOST[:PORT]");
  }
  void addChoice(CLI::App* app) {
    const auto add = [&](const char* name, std::vector<std::string>& values, const char* type,
                         const char* text) {
      return addRepeatable(app, name, values, text)->type_name(type)->group("Choice");
    };
    auto* all = app->add_flag("--all", options.choice.all, "Every quality")->group("Choice");
    add("--video", options.choice.video, "best|worst|all|none|HEIGHTp|ID", "Video; default best")
        ->excludes(all);
    add("--audio", options.choice.audio, "best|all|none|LANG|ID",
        "Audio; default the best of every track")
        ->excludes(all);
    add("--text", options.choice.text, "best|all|none|LANG|ID",
        "Text; default the best of every track")
        ->excludes(all);
  }
};

void addCommands(CLI::App& app, Parsed& parsed) {
  Options& options = parsed.options;
  auto* info = app.add_subcommand("info", "Show what a manifest offers");
  info->add_option("MANIFEST", options.target, "URL or file")->required();
  info->add_flag("--resources", options.resources, "List every resource");
  info->add_option("--url", options.url, "The manifest URL that a file stands for");
  parsed.addHeaders(info);
  parsed.addCommon(info);
  info->callback([&] { options.command = Command::Info; });

  auto* download = app.add_subcommand("download", "Store a presentation, or go on with one");
  download->add_option("URL", options.target, "The manifest")->required();
  parsed.addChoice(download);
  parsed.addHeaders(download);
  parsed.addOrigins(download);
  parsed.addRoot(download);
  parsed.addCommon(download);
  addServiceOptions(*download, options);
  download->callback([&] { options.command = Command::Download; });

  auto* list = app.add_subcommand("list", "Show what is stored");
  parsed.addRoot(list);
  parsed.addCommon(list);
  list->callback([&] { options.command = Command::List; });

  auto* remove = app.add_subcommand("remove", "Delete a download");
  remove->add_option("URL|ID", options.target, "The manifest URL or the identifier that list shows")
      ->required();
  parsed.addRoot(remove);
  parsed.addCommon(remove);
  remove->callback([&] { options.command = Command::Remove; });

  addControlCommands(app, options, [&](CLI::App* command) {
    parsed.addRoot(command);
    parsed.addCommon(command);
  });
}

void addHeader(platform::HTTPHeaders& headers, const std::string& text) {
  const size_t colon = text.find(':');
  std::string name = text.substr(0, colon);
  std::string value =
      colon == std::string::npos ? "" : CLI::detail::trim_copy(text.substr(colon + 1));
  // The request refuses what could split it, without a word; here is somebody to tell.
  platform::URLRequest probe(nullptr);
  probe.setValueForHTTPHeaderField(value, name);
  if (colon == std::string::npos || !probe.valueForHTTPHeaderField(name)) {
    throw Failure(ExitUsage, "--header " + text + " is not of the form 'Name: value'");
  }
  headers.set(std::move(name), std::move(value));
}

std::string checkedOrigin(const std::string& text) {
  const auto url = platform::URL::URLWithString(text);
  if (!url || !url->isOrigin()) {
    throw Failure(ExitUsage,
                  "--header-origin " + text + " is not of the form http[s]://host[:port]");
  }
  return url->origin();
}

void complete(Parsed& parsed) {
  Options& options = parsed.options;
  for (const std::string& header : parsed.headers)
    addHeader(options.headers, header);
  for (const std::string& origin : parsed.origins)
    options.headerOrigins.push_back(checkedOrigin(origin));
  if (options.root.empty()) {
    options.root = platform::FileManager::pathByAppending(
        platform::FileManager::documentsDirectory(), "QNMovieDownloader");
  }
  const auto checkURL = [](const std::string& text) {
    const auto url = platform::URL::URLWithString(text);
    if (!url || !url->isHTTP()) throw Failure(ExitUsage, text + " is not an http or https URL");
  };
  if (options.command == Command::Download)
    options.target = platform::URL::encodingInvalidBytes(options.target);  // as it is stored
  if (!options.url.empty()) checkURL(options.url);
  if (options.command == Command::Download) checkURL(options.target);
}

}  // namespace

std::variant<Options, Answered> parseOptions(int argc, const char* const* argv) {
  Parsed parsed;
  CLI::App app("Stores MPEG-DASH and Smooth Streaming presentations for offline playback.",
               "qnmovie");
  app.set_version_flag("--version", "qnmovie " QN_VERSION);
  app.footer(kFooter);
  app.require_subcommand(1);
  addCommands(app, parsed);
  try {
    app.parse(argc, argv);
    complete(parsed);
  } catch (const CLI::Success& answer) {  // help or version
    return Answered{app.exit(answer, std::cout, std::cerr)};
  } catch (const CLI::ParseError& error) {
    std::cerr << "qnmovie: " << forTerminal(error.what())
              << "\nRun qnmovie --help for more information.\n";
    return Answered{ExitUsage};
  } catch (const Failure& failure) {
    std::cerr << "qnmovie: " << forTerminal(failure.message()) << "\n";
    return Answered{failure.code()};
  }
  return std::move(parsed.options);
}

}  // namespace cli
