#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/Choice.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNQuality.h"
#include "playlist/QNResourceListBuilder.h"
#include "playlist/QNTrack.h"

// Walks over a playlist that several commands need.
namespace cli {

// The resource list of one quality, or why there is none.
struct Listing {
  QNResourceListPtr resources;  // null on failure
  std::string error;
};

// Never throws for what a manifest says. A quality gives the same list object for the same base.
Listing listResources(const QNQuality& quality, const std::optional<std::string>& baseURL);

// Bytes that the manifest and the bitrate make one expect; -1 unknown.
int64_t estimatedBytes(const QNQuality& quality, const QNResourceList& resources);

// "640x360", "48 kHz 2 ch", or empty.
std::string describeFormat(const QNQuality& quality);
std::string describeCodecs(
    const QNQuality& quality);         // the codecs text, else the four-character code
const char* nameOf(QNMediaType type);  // "video", "audio", "text", "unknown"

// Every quality of a movie, in order, and the same as candidates for a choice.
std::vector<std::shared_ptr<QNQuality>> qualitiesOf(const QNMovie& movie);
std::vector<Candidate> candidatesOf(const QNMovie& movie);

// What a download of this presentation does not hold, in one line; empty when it holds everything.
std::string describeOmissions(const QNPlaylist& playlist);
// The warning about ranges that ask for other bytes than the manifest means; empty for 0.
std::string describeInexactRanges(uint64_t inexact, uint64_t listed);

}  // namespace cli
