#include "cli/Record.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "cli/Console.h"
#include "cli/Failure.h"
#include "platform/FileManager.h"
#include "platform/PrivateDirectory.h"

namespace cli {
namespace {

using platform::JSON;

constexpr int64_t kVersion = 1;
constexpr int64_t kMaximumBytes = 1 << 20;

[[noreturn]] void failWriting(const std::string& path) {
  throw Failure(ExitCannotWrite,
                "Cannot write " + path + ": " + std::generic_category().message(errno));
}

std::optional<Record> fromJSON(const JSON& json) {
  const auto text = [&](const char* key) {
    const JSON* member = json.find(key);
    return member ? member->string() : std::nullopt;
  };
  const JSON* version = json.find("version");
  const auto url = text("url");
  const auto root = text("root");
  if (!version || version->integer() != kVersion || !url || !root) return std::nullopt;
  Record record;
  record.url = *url;
  record.root = *root;
  if (const JSON* choice = json.find("choice")) record.choice = choiceFromJSON(*choice);
  if (const JSON* headers = json.find("headers")) {
    for (const auto& [name, value] : headers->members()) {
      if (const auto content = value.string()) record.headers.set(name, *content);
    }
  }
  record.headerOrigins = stringsFromJSON(json.find("headerOrigins"));
  if (text("intent") == "pause") record.intent = Record::Intent::Pause;
  if (const JSON* service = json.find("service"))
    record.service = service->boolean().value_or(false);
  const JSON* outcome = json.find("outcome");
  const JSON* code = outcome ? outcome->find("code") : nullptr;
  const JSON* message = outcome ? outcome->find("message") : nullptr;
  if (code && message) {
    record.outcome = {static_cast<int>(code->integer().value_or(ExitIncomplete)),
                      message->string().value_or("")};
  }
  return record;
}

void writeAndFlush(int fd, const std::string& text, const std::string& path) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) failWriting(path);
    written += static_cast<size_t>(count);
  }
  if (::fsync(fd) != 0) failWriting(path);
}

}  // namespace

JSON toJSON(const std::vector<std::string>& values) {
  JSON array = JSON::array();
  for (const std::string& value : values)
    array.append(value);
  return array;
}

std::vector<std::string> stringsFromJSON(const JSON* json) {
  std::vector<std::string> values;
  if (!json) return values;
  for (const JSON& item : json->items()) {
    if (auto text = item.string()) values.push_back(std::move(*text));
  }
  return values;
}

JSON toJSON(const Choice& choice) {
  JSON json = JSON::object();
  json.set("video", toJSON(choice.video));
  json.set("audio", toJSON(choice.audio));
  json.set("text", toJSON(choice.text));
  json.set("all", choice.all);
  return json;
}

Choice choiceFromJSON(const JSON& json) {
  Choice choice;
  choice.video = stringsFromJSON(json.find("video"));
  choice.audio = stringsFromJSON(json.find("audio"));
  choice.text = stringsFromJSON(json.find("text"));
  if (const JSON* all = json.find("all")) choice.all = all->boolean().value_or(false);
  return choice;
}

std::optional<Record> Record::read(const std::string& path) {
  platform::ErrorPtr error;
  const auto bytes =
      platform::FileManager::defaultManager().contentsAtPath(path, kMaximumBytes, &error);
  if (!bytes && error && error->code() != ENOENT) {
    throw Failure(ExitIncomplete, error->localizedDescription());
  }
  if (!bytes) return std::nullopt;
  std::optional<Record> record;
  const auto json = JSON::parse({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  if (json) record = fromJSON(*json);
  if (!record) {
    Console::shared().note("The record " + path + " is damaged; it is set aside as " + path +
                           ".damaged.");
    ::rename(path.c_str(), (path + ".damaged").c_str());
  }
  return record;
}

void Record::write(const std::string& path) const {
  JSON json = JSON::object();
  json.set("version", kVersion);
  json.set("url", url);
  json.set("root", root);
  json.set("choice", toJSON(choice));
  JSON fields = JSON::object();
  for (const auto& [name, value] : headers.fields())
    fields.set(name, value);
  json.set("headers", std::move(fields));
  json.set("headerOrigins", toJSON(headerOrigins));
  json.set("intent", intent == Intent::Pause ? "pause" : "download");
  json.set("service", service);
  if (outcome) {
    JSON ended = JSON::object();
    ended.set("code", outcome->code);
    ended.set("message", outcome->message);
    json.set("outcome", std::move(ended));
  }

  const std::string directory = path.substr(0, path.rfind('/'));
  platform::ErrorPtr error;
  // A person may have put a link to another disk in its place.
  const auto real = platform::FileManager::defaultManager().canonicalPath(directory);
  platform::openPrivateDirectory(real, platform::PrivateDirectoryMode::Tightened, error);
  if (error) throw Failure(ExitCannotWrite, error->localizedDescription());

  const std::string temporary = path + "." + std::to_string(::getpid());
  ::unlink(temporary.c_str());
  const int fd =
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) failWriting(temporary);
  try {
    writeAndFlush(fd, json.dump(), temporary);
  } catch (...) {
    ::close(fd);
    ::unlink(temporary.c_str());
    throw;
  }
  ::close(fd);
  if (::rename(temporary.c_str(), path.c_str()) != 0) failWriting(path);
}

void Record::remove(const std::string& path) {
  ::unlink(path.c_str());
}

}  // namespace cli
