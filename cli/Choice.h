#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "playlist/QNMediaType.h"

namespace cli {

// Which qualities of a movie are wanted, as a person says it. Each list holds the values of one
// option; together they are a union. An empty list stands for the default: the best video quality,
// the best quality of every audio and text track.
struct Choice {
  std::vector<std::string> video;
  std::vector<std::string> audio;
  std::vector<std::string> text;
  bool all = false;

  bool isDefault() const { return !all && video.empty() && audio.empty() && text.empty(); }
  bool operator==(const Choice&) const = default;
};

// One quality, as far as a choice looks at it.
struct Candidate {
  QNMediaType type = QNMediaTypeUnknown;
  size_t track = 0;  // position of its track in the movie
  std::string identifier;
  uint32_t bitrate = 0;
  uint32_t width = 0;
  uint32_t height = 0;
  std::optional<std::string> language;
  bool trickMode =
      false;  // of use for fast forward only: taken by "all" and by its identifier alone
};

struct Chosen {
  std::vector<size_t> indices;  // into the candidates, ascending, each once
  std::vector<std::string> notices;
};

// Picks from `candidates`. A value that is an identifier wins over every other reading of it.
// Throws Failure (ExitUsage), whose details list what there is, when a value matches nothing or
// nothing at all is chosen. `hasLanguages` is false for a format that states none.
Chosen choose(const std::vector<Candidate>& candidates, const Choice& choice, bool hasLanguages);

// The part of a language tag (BCP 47) before the first "-" or "_", in lower case.
std::string primarySubtag(const std::string& language);

}  // namespace cli
