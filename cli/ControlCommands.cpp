#include "cli/ControlCommands.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "cli/Background.h"
#include "cli/Console.h"
#include "cli/ControlSocket.h"
#include "cli/DownloadState.h"
#include "cli/Failure.h"
#include "engine/QNMovieDownloadSet.h"
#include "platform/FileManager.h"
#include "platform/transfer/TransferOptions.h"

namespace cli {
namespace {

using platform::JSON;

constexpr int kAnswerTimeoutMs = 20'000;
constexpr auto kPatience = std::chrono::seconds(10);
constexpr auto kPause = std::chrono::milliseconds(50);
constexpr auto kFollowPause = std::chrono::milliseconds(500);

std::vector<Place> recordedPlaces() {
  auto& files = platform::FileManager::defaultManager();
  const std::string directory = platform::defaultStateDirectory();
  std::vector<Place> places;
  for (const auto& entry :
       files.contentsOfDirectory(directory).value_or(std::vector<platform::FileManager::Entry>())) {
    if (!entry.isRegular || !entry.name.ends_with(kRecordExtension)) continue;
    try {
      const auto record =
          Record::read(platform::FileManager::pathByAppending(directory, entry.name));
      if (record) places.push_back(Place::forTarget(record->root, record->url));
    } catch (const Failure& failure) {
      Console::shared().note(failure.message());  // the others are listed
    }
  }
  std::sort(places.begin(), places.end(),
            [](const Place& a, const Place& b) { return a.directory < b.directory; });
  return places;
}

Failure noSuchDownload(const Options& options) {
  return {ExitUnreachable, "There is no download " + options.target + " in " + options.root};
}

std::vector<DownloadState> states(const Options& options) {
  std::vector<DownloadState> list;
  if (!options.target.empty()) {
    const auto state = DownloadState::of(Place::forTarget(options.root, options.target));
    if (!state) throw noSuchDownload(options);
    return {*state};
  }
  for (const Place& place : recordedPlaces()) {
    if (auto state = DownloadState::of(place)) list.push_back(std::move(*state));
  }
  return list;
}

std::string render(const std::vector<DownloadState>& list, bool json) {
  if (json) {
    JSON downloads = JSON::array();
    for (const DownloadState& state : list)
      downloads.append(state.toJSON());
    JSON result = JSON::object();
    result.set("downloads", std::move(downloads));
    return result.dump() + "\n";
  }
  std::string text;
  for (const DownloadState& state : list)
    text += state.id + "  " + state.line() + "\n";
  return text;
}

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

// --- Without a holder

using Set = std::shared_ptr<QNMovieDownloadSet>;

Set setOf(QNMovieDownloader& downloader, const Place& place) {
  const auto record = Record::read(place.recordPath);
  const std::string url = record ? record->url : place.storedURL();
  return url.empty() ? nullptr : downloader.activateDownloadSetForURL(url);
}

void pauseHere(const Place& place) {
  auto record = Record::read(place.recordPath);
  if (!record) return;
  const auto downloader = place.openDownloader();
  if (const Set set = setOf(*downloader, place)) downloader->pause(set);
  record->intent = Record::Intent::Pause;
  record->write(place.recordPath);
}

void cancelHere(const Place& place) {
  const auto downloader = place.openDownloader();
  if (const Set set = setOf(*downloader, place)) downloader->cancel(set);
  waitUntilWithoutTasks(*downloader);
  Record::remove(place.recordPath);
}

DownloadState actHere(const Place& place, Command command) {
  const auto before = DownloadState::of(place);
  if (before && before->state == DownloadState::Complete) return *before;
  if (command == Command::Pause) pauseHere(place);
  if (command == Command::Resume) goOnInBackground(place);
  if (command == Command::Cancel) cancelHere(place);
  const auto after = DownloadState::of(place);
  return after ? *after : DownloadState{};
}

const char* nameOf(Command command) {
  return command == Command::Pause ? "pause" : command == Command::Resume ? "resume" : "cancel";
}

// nullopt: whoever had the download went, or comes only now.
std::optional<DownloadState> tryOnce(const Place& place, Command command) {
  if (auto client = ControlClient::connect(place)) {
    const auto answer = client->ask(nameOf(command), kAnswerTimeoutMs);
    auto state = answer ? DownloadState::fromJSON(*answer) : std::nullopt;
    if (state) state->process = client->process();
    return state;
  }
  try {
    return actHere(place, command);
  } catch (const Failure& failure) {
    if (failure.code() == ExitHeld) return std::nullopt;
    throw;
  }
}

}  // namespace

int runStatus(const Options& options) {
  auto list = states(options);
  const auto isOver = [](const DownloadState& state) { return state.isOver(); };
  if (list.empty() && !options.json) Console::shared().note("There is no download");
  std::string shown = render(list, options.json);
  print(shown);
  while (options.follow && !std::all_of(list.begin(), list.end(), isOver)) {
    std::this_thread::sleep_for(kFollowPause);
    list = states(options);
    const std::string text = render(list, options.json);
    if (text != shown) print(text);
    shown = text;
  }
  if (!options.follow) return ExitComplete;
  const bool complete = std::all_of(list.begin(), list.end(), [](const DownloadState& state) {
    return state.state == DownloadState::Complete;
  });
  return complete ? ExitComplete : ExitIncomplete;
}

int runControl(const Options& options) {
  const Place place = Place::forTarget(options.root, options.target);
  if (!DownloadState::of(place)) throw noSuchDownload(options);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::optional<DownloadState> state;
  while (!(state = tryOnce(place, options.command))) {
    if (std::chrono::steady_clock::now() >= deadline)
      throw Failure(ExitHeld, "The process that works on " + place.directory + " does not answer");
    std::this_thread::sleep_for(kPause);
  }
  if (options.json) {
    print(state->toJSON().dump() + "\n");
  } else if (!options.quiet) {
    print(state->id + "  " + state->line() + "\n");
  }
  return ExitComplete;
}

}  // namespace cli
