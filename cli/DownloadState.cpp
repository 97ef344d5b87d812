#include "cli/DownloadState.h"

#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "cli/ControlSocket.h"
#include "cli/Text.h"
#include "cli/Wanted.h"
#include "platform/FileManager.h"
#include "platform/transfer/StoreLock.h"

namespace cli {
namespace {

using platform::JSON;

constexpr int kAnswerTimeoutMs = 3'000;
constexpr auto kWithoutTasksTimeout = std::chrono::seconds(5);

constexpr std::array<const char*, 8> kNames = {"starting",     "downloading", "paused",
                                               "transferring", "interrupted", "failed",
                                               "cancelled",    "complete"};

int64_t bytesBelow(const std::string& directory) {
  auto& files = platform::FileManager::defaultManager();
  return files.isDirectory(directory) ? files.folderSize(directory) : 0;
}

JSON orNull(const std::string& text) {
  return text.empty() ? JSON() : JSON(text);
}

std::string textOf(const JSON& json, const char* key) {
  const JSON* member = json.find(key);
  return member ? member->string().value_or("") : "";
}

}  // namespace

DownloadState DownloadState::ofHolder(const Place& place, const std::string& url,
                                      const Figures& figures) {
  DownloadState state;
  state.state = figures.paused ? Paused : Downloading;
  state.id = place.downloadId;
  state.url = url;
  state.directory = place.directory;
  state.bytes = figures.bytes();
  state.expected = figures.expected();
  state.estimated = figures.estimated();
  state.waiting = figures.waiting;
  return state;
}

DownloadState DownloadState::ofDisk(const Place& place, const std::optional<Record>& record) {
  DownloadState state;
  state.id = place.downloadId;
  state.directory = place.directory;
  state.url = record ? record->url : place.storedURL();
  state.bytes = bytesBelow(place.directory) + bytesBelow(place.partialDirectory());
  bool complete = false;
  if (place.hasProperties()) {
    const auto properties = QNMovieDownloadProperties::propertiesWithLocalPath(
        place.directory, QNMoviePropertiesFileName);
    complete = properties && storedExtent(*properties).isComplete();
  }
  if (complete) {
    state.state = Complete;
  } else if (!record) {
    state.state = Cancelled;
  } else if (record->intent == Record::Intent::Pause) {
    state.state = Paused;
  } else if (record->outcome) {
    state.state = Failed;
    state.error = record->outcome->message;
  } else if (record->service && platform::StoreLock::holder(place.storeDirectory)) {
    state.state = Transferring;
    state.background = true;
  }
  return state;
}

std::optional<DownloadState> DownloadState::of(const Place& place) {
  std::optional<DownloadState> answered;
  std::optional<pid_t> process;
  if (auto client = ControlClient::connect(place)) {
    process = client->process();
    const auto answer = client->ask("status", kAnswerTimeoutMs);
    if (answer) answered = fromJSON(*answer);
  }
  const auto record = Record::read(place.recordPath);
  if (!answered && !record && !place.exists()) return std::nullopt;
  DownloadState state = answered ? *answered : ofDisk(place, record);
  if (!answered && process && state.state == Interrupted) state.state = Starting;
  if (answered || state.state == Starting) state.process = process;
  return state;
}

JSON DownloadState::toJSON() const {
  JSON json = JSON::object();
  json.set("id", id);
  json.set("url", url);
  json.set("directory", directory);
  json.set("state", kNames[state]);
  json.set("process", process ? JSON(int64_t{*process}) : JSON());
  json.set("background", background);
  json.set("bytes", bytes);
  json.set("expected", expected < 0 ? JSON() : JSON(expected));
  json.set("estimated", estimated);
  json.set("waiting", orNull(waiting));
  json.set("error", orNull(error));
  return json;
}

std::optional<DownloadState> DownloadState::fromJSON(const JSON& json) {
  DownloadState state;
  const std::string name = textOf(json, "state");
  size_t number = 0;
  while (number < kNames.size() && name != kNames[number])
    ++number;
  const JSON* bytes = json.find("bytes");
  if (number == kNames.size() || !bytes) return std::nullopt;
  state.state = static_cast<State>(number);
  state.id = textOf(json, "id");
  state.url = textOf(json, "url");
  state.directory = textOf(json, "directory");
  const JSON* background = json.find("background");
  state.background = background && background->boolean().value_or(false);
  state.bytes = bytes->integer().value_or(0);
  const JSON* expected = json.find("expected");
  if (expected) state.expected = expected->integer().value_or(-1);
  const JSON* estimated = json.find("estimated");
  state.estimated = estimated && estimated->boolean().value_or(false);
  state.waiting = textOf(json, "waiting");
  state.error = textOf(json, "error");
  return state;
}

std::string DownloadState::line() const {
  std::string text = padded(kNames[state], 12) + "  " + padded(formatBytes(bytes), 8);
  if (expected > 0 && state != Complete) {
    const auto percent = static_cast<int>(100.0 * static_cast<double>(bytes) /
                                          static_cast<double>(std::max(expected, bytes)));
    text += " of " + std::string(estimated ? "about " : "") + formatBytes(expected) + " (" +
            std::to_string(percent) + " %)";
  }
  text += "  " + forTerminal(url);
  if (!waiting.empty()) text += "  (" + forTerminal(waiting) + ")";
  if (!error.empty()) text += "  (" + forTerminal(error) + ")";
  if (process) text += "  [" + std::to_string(*process) + "]";
  return text;
}

void waitUntilWithoutTasks(QNMovieDownloader& downloader) {
  const auto deadline = std::chrono::steady_clock::now() + kWithoutTasksTimeout;
  for (;;) {
    auto answer = std::make_shared<std::promise<bool>>();
    downloader.downloadSession()->getAllTasksWithCompletionHandler(
        [answer](const platform::URLSession::Tasks& tasks) { answer->set_value(tasks.empty()); });
    auto isEmpty = answer->get_future();
    if (isEmpty.wait_until(deadline) != std::future_status::ready || isEmpty.get()) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace cli
