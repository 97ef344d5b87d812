#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cli/Choice.h"
#include "engine/QNMovieDownloadProperties.h"
#include "playlist/QNMovie.h"
#include "playlist/QNQuality.h"

namespace cli {

// The qualities of a movie that a choice means.
struct Wanted {
  std::vector<std::shared_ptr<QNQuality>> qualities;
  std::vector<std::string> notices;
};
// Throws Failure (ExitUsage). `format` is the playlist's.
Wanted wantedQualities(const QNMovie& movie, const std::string& format, const Choice& choice);

// "video 720p 1280x720".
std::string labelOf(const QNQuality& quality);

// The key of the program's own in a download's properties file:
//   {"choice":{"video":[...],"audio":[...],"text":[...],"all":bool},
//    "qualities":[{"type":"video","identifier":"..."}, ...]}
// the choice as it was said, and what it came to.
inline constexpr const char* WantedKey = "QNMovieWanted";

void storeWanted(QNMutableMovieDownloadProperties& properties, const Choice& choice,
                 const Wanted& wanted);
// The default choice when nothing is stored.
Choice storedChoice(const QNMovieDownloadProperties& properties);

// How much of what was asked for is stored, as the properties file tells.
struct StoredExtent {
  size_t wanted = 0;
  size_t stored = 0;  // of the wanted ones
  bool isComplete() const { return wanted > 0 && stored == wanted; }
};
StoredExtent storedExtent(const QNMovieDownloadProperties& properties);

}  // namespace cli
