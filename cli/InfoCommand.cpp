#include "cli/InfoCommand.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "cli/Console.h"
#include "cli/ExitCode.h"
#include "cli/JSONStream.h"
#include "cli/ManifestLoader.h"
#include "cli/ManifestTable.h"
#include "cli/Text.h"
#include "platform/URL.h"
#include "playlist/QNAudioQuality.h"
#include "playlist/QNInexactRanges.h"
#include "playlist/QNMovie.h"
#include "playlist/QNRangedURL.h"
#include "playlist/QNTextQuality.h"
#include "playlist/QNVideoQuality.h"

namespace cli {
namespace {

using platform::JSON;

// A playlist and the lists of all its qualities.
struct Shown {
  std::shared_ptr<QNPlaylist> playlist;
  std::map<const QNQuality*, Listing> listings;
  uint64_t inexact = 0;
  uint64_t listed = 0;
  std::string error;  // of the first list that cannot be built
};

Shown listEverything(std::shared_ptr<QNPlaylist> playlist,
                     const std::optional<std::string>& baseURL) {
  Shown shown;
  shown.playlist = std::move(playlist);
  for (const auto& movie : shown.playlist->movies()) {
    for (const auto& quality : qualitiesOf(*movie)) {
      Listing& listing = shown.listings[quality.get()];
      listing = listResources(*quality, baseURL);
      if (!listing.resources) {
        if (shown.error.empty())
          shown.error = "Quality " + quality->identifier() + ": " + listing.error;
        continue;
      }
      shown.listed += listing.resources->size();
      shown.inexact += inexactRanges(listing.resources);
    }
  }
  return shown;
}

JSON orNull(const std::optional<std::string>& text) {
  return text ? JSON(*text) : JSON();
}
JSON durationOrNull(double seconds) {
  return seconds < 0 ? JSON() : JSON(seconds);
}

class JSONPrinter {
 public:
  JSONPrinter(const Shown& shown, bool resources)
      : shown_(shown), resources_(resources), out_(stdout) {}

  void print() {
    out_.beginObject();
    out_.member("format", shown_.playlist->format());
    out_.member("inexactRanges", shown_.inexact);
    out_.key("movies");
    out_.beginArray();
    for (const auto& movie : shown_.playlist->movies())
      _movie(*movie);
    out_.endArray();
    out_.endObject();
    out_.finish();
  }

 private:
  void _movie(const QNMovie& movie) {
    out_.beginObject();
    out_.member("duration", durationOrNull(movie.duration()));
    out_.key("tracks");
    out_.beginArray();
    for (const auto& track : movie.tracks())
      _track(*track);
    out_.endArray();
    out_.endObject();
  }

  void _track(const QNTrack& track) {
    out_.beginObject();
    out_.member("type", nameOf(track.type()));
    out_.member("name", orNull(track.name()));
    out_.member("language", orNull(track.language()));
    out_.member("duration", durationOrNull(track.duration()));
    out_.key("qualities");
    out_.beginArray();
    for (const auto& quality : track.qualities())
      _quality(*quality);
    out_.endArray();
    out_.endObject();
  }

  void _quality(const QNQuality& quality) {
    out_.beginObject();
    out_.member("identifier", quality.identifier());
    out_.member("fourCC", quality.fourCC());
    out_.member("bitrate", quality.bitrate());
    out_.member("parameters", orNull(quality.parameters()));
    if (const auto* video = dynamic_cast<const QNVideoQuality*>(&quality)) {
      out_.member("width", video->width());
      out_.member("height", video->height());
    } else if (const auto* audio = dynamic_cast<const QNAudioQuality*>(&quality)) {
      out_.member("channels", audio->channels());
      out_.member("sampleRate", audio->sampleRate());
      out_.member("bitsPerSample", audio->bitsPerSample());
    } else if (const auto* text = dynamic_cast<const QNTextQuality*>(&quality)) {
      out_.member("width", text->width());
      out_.member("height", text->height());
    }
    if (resources_) _resources(shown_.listings.at(&quality));
    out_.endObject();
  }

  void _resources(const Listing& listing) {
    out_.key("resources");
    if (!listing.resources) {
      out_.value(nullptr);
      out_.member("resourceError", listing.error);
      return;
    }
    out_.beginArray();
    for (const auto& resource : *listing.resources)
      _resource(*resource);
    out_.endArray();
  }

  void _resource(const QNRangedURL& resource) {
    const auto url = resource.resolveURL();
    out_.beginObject();
    out_.member("url", resource.referenceURL());
    out_.member("offset", resource.offset());
    out_.member("length", resource.length());
    out_.member("range", orNull(resource.rangeHeader()));
    out_.member("resolved", url && url->scheme() ? JSON(url->absoluteString()) : JSON());
    out_.endObject();
  }

  const Shown& shown_;
  const bool resources_;
  JSONStream out_;
};

class TablePrinter {
 public:
  TablePrinter(const Shown& shown, bool resources) : shown_(shown), resources_(resources) {
    for (const auto& [quality, listing] : shown.listings) {
      idWidth_ = std::max(idWidth_, displayWidth(forTerminal(quality->identifier())));
      codecsWidth_ = std::max(codecsWidth_, displayWidth(forTerminal(describeCodecs(*quality))));
    }
    idWidth_ = std::min<size_t>(idWidth_, 40);
    codecsWidth_ = std::min<size_t>(codecsWidth_, 40);
  }

  void print() const {
    const auto& movies = shown_.playlist->movies();
    const std::string format = shown_.playlist->format() == "smooth" ? "Smooth Streaming" : "DASH";
    for (size_t i = 0; i < movies.size(); ++i) {
      const std::string number = movies.size() > 1 ? ", movie " + std::to_string(i + 1) : "";
      _line(format + number + ", " +
            (movies[i]->duration() < 0 ? "of unknown duration"
                                       : formatSeconds(movies[i]->duration())));
      for (const auto& track : movies[i]->tracks())
        _track(*track);
    }
  }

 private:
  void _track(const QNTrack& track) const {
    std::string line = std::string("  ") + nameOf(track.type());
    if (track.isTrickMode()) line += ", trick mode";
    if (track.language()) line += ", " + *track.language();
    if (track.name() && !track.name()->empty()) line += ", \"" + *track.name() + "\"";
    _line(line);
    if (track.qualities().empty()) return;
    _row("ID", "CODECS", "FORMAT", "BITRATE", "RESOURCES", "SIZE");
    for (const auto& quality : track.qualities())
      _quality(*quality);
  }

  void _quality(const QNQuality& quality) const {
    const Listing& listing = shown_.listings.at(&quality);
    const std::string count =
        listing.resources ? std::to_string(listing.resources->size()) : "none";
    std::string size;
    if (listing.resources) {
      const int64_t bytes = estimatedBytes(quality, *listing.resources);
      size = bytes < 0 ? "?" : bytes > 0 ? "~" + formatBytes(bytes) : "";
    } else {
      size = listing.error;
    }
    _row(quality.identifier(), describeCodecs(quality), describeFormat(quality),
         formatBitrate(quality.bitrate()), count, size);
    if (!resources_ || !listing.resources) return;
    for (const auto& resource : *listing.resources) {
      const auto range = resource->rangeHeader();
      _line("      " + resource->referenceURL() + (range ? "  " + *range : ""));
    }
  }

  void _row(const std::string& id, const std::string& codecs, const std::string& format,
            const std::string& bitrate, const std::string& count, const std::string& size) const {
    _line("    " + padded(forTerminal(id), std::max<size_t>(idWidth_, 2)) + "  " +
          padded(forTerminal(codecs), std::max<size_t>(codecsWidth_, 6)) + "  " +
          padded(format, 12) + "  " + padded(bitrate, 10) + "  " + padded(count, 9) + "  " + size);
  }

  static void _line(const std::string& text) {
    const std::string line = forTerminal(text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
  }

  const Shown& shown_;
  const bool resources_;
  size_t idWidth_ = 0;
  size_t codecsWidth_ = 0;
};

}  // namespace

int runInfo(const Options& options) {
  const auto url = platform::URL::URLWithString(options.target);
  const bool isRemote = url && url->isHTTP();
  LoadedManifest manifest;
  if (isRemote) {
    manifest = loadManifestFromURL(options.target, options.headers);
  } else {
    const auto path = url ? url->filePath() : std::nullopt;
    manifest = loadManifestFromFile(path.value_or(options.target));
  }
  const std::string& address = !options.url.empty() || !isRemote ? options.url : options.target;
  const Shown shown =
      listEverything(std::move(manifest.playlist),
                     address.empty() ? std::nullopt : std::optional(baseURLOf(address)));
  if (options.json) {
    JSONPrinter(shown, options.resources).print();
  } else {
    TablePrinter(shown, options.resources).print();
  }
  std::fflush(stdout);
  Console& console = Console::shared();
  console.note(describeOmissions(*shown.playlist));
  console.note(describeInexactRanges(shown.inexact, shown.listed));
  if (shown.listed > 0) {
    if (!shown.error.empty()) console.note("Not everything can be listed. " + shown.error);
    return ExitComplete;
  }
  console.fail(options.target + " is not a usable manifest: nothing can be listed" +
               (shown.error.empty() ? "" : ". " + shown.error));
  return ExitManifest;
}

}  // namespace cli
