#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/Choice.h"
#include "platform/JSON.h"
#include "platform/URLRequest.h"

namespace cli {

// What the program remembers of one download beside the session's store, so that it can go on after
// any end: the store knows transfers and the download directory files, neither knows what was asked
// for. Mode 0600, since headers may be secrets.
struct Record {
  enum class Intent { Download, Pause };

  // How the last run ended, unless it stored everything or was stopped.
  struct Outcome {
    int code = 0;
    std::string message;
    bool operator==(const Outcome&) const = default;
  };

  std::string url;
  std::string root;  // canonical
  Choice choice;
  platform::HTTPHeaders headers;
  std::vector<std::string> headerOrigins;  // that get the headers beside the manifest's
  Intent intent = Intent::Download;
  bool service = false;  // its transfers belong to the transfer service
  std::optional<Outcome> outcome;

  // nullopt when there is none. A damaged one is set aside as "<path>.damaged" and reported to the
  // console; one that cannot be read now throws Failure (ExitIncomplete) and is left alone.
  static std::optional<Record> read(const std::string& path);
  // Replaces the file as a whole; its directory is made with mode 0700. Throws Failure
  // (ExitCannotWrite).
  void write(const std::string& path) const;
  static void remove(const std::string& path);

  bool operator==(const Record&) const = default;
};

// {"video":[...],"audio":[...],"text":[...],"all":bool}; what is malformed reads as the default
// choice.
platform::JSON toJSON(const Choice& choice);
Choice choiceFromJSON(const platform::JSON& json);
platform::JSON toJSON(const std::vector<std::string>& values);
// Null: none; what is no text is left out.
std::vector<std::string> stringsFromJSON(const platform::JSON* json);

}  // namespace cli
