#include "cli/DownloadCommand.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include "cli/Console.h"
#include "cli/ControlSocket.h"
#include "cli/DownloadReport.h"
#include "cli/DownloadRun.h"
#include "cli/DownloadState.h"
#include "cli/Failure.h"
#include "cli/Interrupt.h"
#include "cli/ManifestLoader.h"
#include "cli/ManifestTable.h"
#include "cli/Place.h"
#include "cli/Record.h"
#include "cli/Text.h"
#include "platform/Exception.h"
#include "playlist/QNInexactRanges.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylistFactory.h"
#include "playlist/QNRangedURL.h"

namespace cli {
namespace {

// What the file system said where it kept a set from being made; nullopt for any other error.
std::optional<std::string> refusalIn(const platform::Error& error) {
  const auto entry = error.userInfo().find(QNUnderlyingErrorKey);
  const auto* cause =
      entry == error.userInfo().end() ? nullptr : std::any_cast<platform::ErrorPtr>(&entry->second);
  if (!cause || !*cause) return std::nullopt;
  return error.localizedDescription() + ": " + (*cause)->localizedDescription();
}

// A set that could not be made: the manifest's fault, or the file system's.
[[noreturn]] void failStoring(const std::string& url, const platform::ErrorPtr& error) {
  const std::string reason = error ? error->localizedDescription() : "unknown failure";
  if (const auto refusal = error ? refusalIn(*error) : std::nullopt)
    throw Failure(ExitCannotWrite, "Cannot store " + url + ": " + *refusal);
  if (error && error->domain() == QNPlaylistFactoryErrorDomain) {
    throw Failure(ExitManifest, url + " is not a usable manifest: " + reason);
  }
  throw Failure(ExitCannotWrite, "Cannot store " + url + ": " + reason);
}

// The file manager's error inside a downloader's exception says more than its fixed reason.
std::string reasonOf(const platform::Exception& exception) {
  const auto entry = exception.userInfo().find("NSError");
  const auto* error = entry == exception.userInfo().end()
                          ? nullptr
                          : std::any_cast<platform::ErrorPtr>(&entry->second);
  return error && *error ? exception.reason() + ": " + (*error)->localizedDescription()
                         : exception.reason();
}

class DownloadCommand {
 public:
  DownloadCommand(const Options& options, const Headless* headless)
      : options_(options),
        headless_(headless),
        place_(Place::forURL(options.root, options.target)),
        url_(options.target) {}

  int run() {
    const auto downloader = place_.openDownloader(_usesService());
    ControlServer control(place_);
    _settleURL();
    _recall(*downloader);
    const auto set = _set(*downloader);
    Wanted wanted = wantedQualities(*set->movie(), set->playlist()->format(), record_.choice);
    for (const std::string& notice : wanted.notices)
      Console::shared().note(notice);
    storeWanted(*set->properties(), record_.choice, wanted);
    _remember(Record::Intent::Download);

    DownloadRun run(downloader, set, std::move(wanted));
    const bool complete = run.isComplete();
    const bool originsChanged = set->headerOrigins() != record_.headerOrigins;
    if (complete || headersChanged_ || originsChanged) run.dropEarlierTasks();
    if (complete) {
      static_cast<void>(_tellBegun(true));
      return _report(run, true);
    }
    _limitHeaders(*set);
    Console::shared().note("Storing " + url_ + " in " + place_.directory);
    Interrupt::deferSignals();
    Progress progress(Console::shared());
    if (!run.run(progress, [&] { _turn(run, control); })) return _stopped(*downloader);
    return _report(run, false);
  }

 private:
  bool _usesService() const {
    const char* asked = std::getenv("QN_USE_SERVICE");
    return headless_ || options_.service || (asked && std::string_view(asked) == "1");
  }

  // False when nobody is there any more to hear it.
  bool _tellBegun(bool complete) {
    if (!headless_ || std::exchange(begun_, true)) return true;
    platform::JSON begun = platform::JSON::object();
    begun.set("url", url_);
    begun.set("id", place_.downloadId);
    begun.set("directory", place_.directory);
    begun.set("complete", complete);
    return headless_->begun(begun);
  }

  void _turn(DownloadRun& run, ControlServer& control) {
    // Whoever asked for it has gone: an interrupt like any other.
    if (!_tellBegun(false)) {
      _remember(Record::Intent::Pause);
      run.leave();
    }
    control.answer([&](const std::string& command) { return _answer(run, command); });
  }

  platform::JSON _answer(DownloadRun& run, const std::string& command) {
    if (command == "pause") {
      run.pause();
      _remember(Record::Intent::Pause);
      // Nobody watches a headless one: it is started again to go on.
      if (headless_) run.leave();
    } else if (command == "resume") {
      run.resume();
      _remember(Record::Intent::Download);
    } else if (command == "cancel") {
      run.cancel();
      run.leave();
      cancelled_ = true;
    } else if (command != "status") {
      platform::JSON refused = platform::JSON::object();
      refused.set("error", "unknown command");
      return refused;
    }
    Interrupt::wake();
    DownloadState state = DownloadState::ofHolder(place_, url_, run.figures());
    if (cancelled_) state.state = DownloadState::Cancelled;
    state.background = headless_ != nullptr;
    return state.toJSON();
  }

  // The address under which the download is stored decides: its identifier says nothing of scheme,
  // port, user and fragment.
  void _settleURL() {
    const std::string stored = place_.storedURL();
    if (stored.empty() || stored == url_) return;
    Console::shared().note("This download was made from " + stored + " and goes on from there.");
    url_ = stored;
  }

  // What was asked for earlier holds unless the command line says otherwise; choice options replace
  // the whole choice.
  void _recall(QNMovieDownloader& downloader) {
    if (auto earlier = Record::read(place_.recordPath)) record_ = std::move(*earlier);
    record_.url = url_;
    record_.root = place_.root;
    record_.service = record_.service || _usesService();
    record_.outcome.reset();
    if (!options_.headers.empty()) {
      headersChanged_ = !(record_.headers == options_.headers);
      record_.headers = options_.headers;
    }
    if (!options_.headerOrigins.empty()) record_.headerOrigins = options_.headerOrigins;
    if (!options_.choice.isDefault()) {
      record_.choice = options_.choice;
    } else if (place_.hasProperties()) {
      const auto properties = QNMovieDownloadProperties::propertiesWithLocalPath(
          place_.directory, QNMoviePropertiesFileName);
      if (properties) record_.choice = storedChoice(*properties);
    }
    if (record_.headers.empty()) return;
    QNHeaders headers;
    for (const auto& [name, value] : record_.headers.fields())
      headers[name] = value;
    downloader.setAdditionalHeaders(std::make_shared<const QNHeaders>(std::move(headers)));
  }

  void _limitHeaders(QNMovieDownloadSet& set) const {
    try {
      set.setHeaderOrigins(record_.headerOrigins);
    } catch (const platform::Exception& exception) {
      throw Failure(ExitCannotWrite, "Cannot store " + url_ + ": " + reasonOf(exception));
    }
  }

  std::shared_ptr<QNMovieDownloadSet> _set(QNMovieDownloader& downloader) {
    auto set = downloader.fetchActiveDownloadSetForURL(url_);
    if (!set && place_.hasManifest(downloader)) set = _storedSet(downloader);
    if (set) {
      _tellAbout(*set->playlist());
      return set;
    }
    LoadedManifest manifest = loadManifestFromURL(url_, record_.headers);
    _tellAbout(*manifest.playlist);
    // Before anything is stored: a choice that matches nothing leaves no download behind.
    const auto& movie = manifest.playlist->movies().front();
    static_cast<void>(wantedQualities(*movie, manifest.playlist->format(), record_.choice));
    platform::ErrorPtr error;
    try {
      auto set = downloader.storeDownloadSetForURL(url_, manifest.playlist, manifest.bytes, &error);
      if (set) return set;
    } catch (const platform::Exception& exception) {
      throw Failure(ExitCannotWrite, "Cannot store " + url_ + ": " + reasonOf(exception));
    }
    failStoring(url_, error);
  }

  // With a stored manifest a fetch is answered inside the call, and says why when it is not usable.
  std::shared_ptr<QNMovieDownloadSet> _storedSet(QNMovieDownloader& downloader) {
    std::shared_ptr<QNMovieDownloadSet> stored;
    std::string reason = "it cannot be read";
    std::optional<std::string> refused;
    downloader.fetchDownloadSetForURL(url_, [&](const auto& set, const platform::ErrorPtr& error) {
      stored = set;
      if (!error) return;
      reason = error->localizedDescription();
      refused = refusalIn(*error);
    });
    if (stored) return stored;
    // What the file system refuses now may be whole.
    if (refused)
      throw Failure(ExitCannotWrite, "Cannot open " + place_.directory + ": " + *refused);
    throw Failure(ExitManifest, "The stored manifest in " + place_.directory +
                                    " is not usable: " + reason + " (qnmovie remove starts over)");
  }

  // Warnings about the first movie, the one that is downloaded. Throws when nothing can be listed.
  void _tellAbout(const QNPlaylist& playlist) const {
    Console::shared().note(describeOmissions(playlist));
    const std::string base = baseURLOf(url_);
    uint64_t listed = 0;
    uint64_t inexact = 0;
    std::string error;
    for (const auto& quality : qualitiesOf(*playlist.movies().front())) {
      const Listing listing = listResources(*quality, base);
      if (!listing.resources && error.empty()) error = listing.error;
      listed += listing.resources ? listing.resources->size() : 0;
      inexact += inexactRanges(listing.resources);
    }
    if (!error.empty() || listed == 0) {
      throw Failure(ExitManifest, url_ + " is not a usable manifest: " +
                                      (error.empty() ? "nothing can be listed" : error));
    }
    Console::shared().note(describeInexactRanges(inexact, listed));
  }

  void _remember(Record::Intent intent) {
    record_.intent = intent;
    record_.write(place_.recordPath);
  }

  int _stopped(QNMovieDownloader& downloader) {
    if (cancelled_) {
      waitUntilWithoutTasks(downloader);
      Record::remove(place_.recordPath);
      Console::shared().note("Cancelled. What is whole stays; qnmovie remove deletes it.");
      return headless_ ? ExitComplete : ExitIncomplete;
    }
    _remember(Record::Intent::Pause);
    Console::shared().note("Paused. The same command goes on from here.");
    return Interrupt::exitCode();
  }

  int _report(const DownloadRun& run, bool nothingFetched) {
    const DownloadReport report(run, nothingFetched);
    report.print(options_.json);
    if (report.exitCode() == ExitComplete) return ExitComplete;
    Console::shared().fail(report.headline(), report.missingLines());
    record_.outcome = {report.exitCode(), report.headline()};
    _remember(Record::Intent::Download);
    return report.exitCode();
  }

  const Options& options_;
  const Headless* const headless_;
  const Place place_;
  std::string url_;
  Record record_;
  bool headersChanged_ = false;
  bool begun_ = false;
  bool cancelled_ = false;
};

}  // namespace

int runDownload(const Options& options) {
  return DownloadCommand(options, nullptr).run();
}

int runDownload(const Options& options, const Headless& headless) {
  return DownloadCommand(options, &headless).run();
}

}  // namespace cli
