#include "cli/ManifestTable.h"

#include <cstdio>

#include "cli/Text.h"
#include "platform/Exception.h"
#include "playlist/QNAudioQuality.h"
#include "playlist/QNMovie.h"
#include "playlist/QNRangedURL.h"
#include "playlist/QNTextQuality.h"
#include "playlist/QNVideoQuality.h"

namespace cli {

Listing listResources(const QNQuality& quality, const std::optional<std::string>& baseURL) {
  try {
    if (!quality.resourceBuilder()) return {nullptr, "has no resource list"};
    auto resources = quality.resourceBuilder()->fillResourcesWithBaseURL(baseURL);
    return resources ? Listing{std::move(resources), {}} : Listing{nullptr, "has no resource list"};
  } catch (const platform::Exception& exception) {
    return {nullptr, exception.reason()};
  }
}

int64_t estimatedBytes(const QNQuality& quality, const QNResourceList& resources) {
  const auto track = quality.parent();
  const double duration = track ? track->duration() : -1;
  const double bytes = duration > 0 ? static_cast<double>(quality.bitrate()) * duration / 8 : -1;
  const double each = resources.empty() ? 0 : bytes / static_cast<double>(resources.size());
  double sum = 0;
  for (const auto& resource : resources) {
    if (resource->length() == 0 && bytes <= 0) return -1;
    sum += resource->length() != 0 ? static_cast<double>(resource->length()) : each;
  }
  return sum < 9e18 ? static_cast<int64_t>(sum) : -1;
}

std::string describeFormat(const QNQuality& quality) {
  char text[96] = "";
  if (const auto* video = dynamic_cast<const QNVideoQuality*>(&quality)) {
    if (video->width() || video->height())
      std::snprintf(text, sizeof text, "%ux%u", video->width(), video->height());
  } else if (const auto* audio = dynamic_cast<const QNAudioQuality*>(&quality)) {
    if (audio->sampleRate())
      std::snprintf(text, sizeof text, "%g kHz", audio->sampleRate() / 1000.0);
    if (audio->channels()) {
      const std::string rate = text;
      std::snprintf(text, sizeof text, "%s%s%u ch", rate.c_str(), rate.empty() ? "" : " ",
                    audio->channels());
    }
  } else if (const auto* words = dynamic_cast<const QNTextQuality*>(&quality)) {
    if (words->width() || words->height())
      std::snprintf(text, sizeof text, "%ux%u", words->width(), words->height());
  }
  return text;
}

std::string describeCodecs(const QNQuality& quality) {
  return quality.codecs().empty() ? quality.fourCC() : quality.codecs();
}

const char* nameOf(QNMediaType type) {
  switch (type) {
    case QNMediaTypeVideo:
      return "video";
    case QNMediaTypeAudio:
      return "audio";
    case QNMediaTypeText:
      return "text";
    case QNMediaTypeUnknown:
      break;
  }
  return "unknown";
}

std::vector<std::shared_ptr<QNQuality>> qualitiesOf(const QNMovie& movie) {
  std::vector<std::shared_ptr<QNQuality>> qualities;
  for (const auto& track : movie.tracks()) {
    qualities.insert(qualities.end(), track->qualities().begin(), track->qualities().end());
  }
  return qualities;
}

std::vector<Candidate> candidatesOf(const QNMovie& movie) {
  std::vector<Candidate> candidates;
  for (size_t index = 0; index < movie.tracks().size(); ++index) {
    const auto& track = movie.tracks()[index];
    for (const auto& quality : track->qualities()) {
      Candidate candidate;
      candidate.type = quality->type();
      candidate.track = index;
      candidate.identifier = quality->identifier();
      candidate.bitrate = quality->bitrate();
      candidate.language = track->language();
      candidate.trickMode = track->isTrickMode();
      if (const auto* video = dynamic_cast<const QNVideoQuality*>(quality.get())) {
        candidate.width = video->width();
        candidate.height = video->height();
      }
      candidates.push_back(std::move(candidate));
    }
  }
  return candidates;
}

std::string describeOmissions(const QNPlaylist& playlist) {
  std::string line;
  const auto add = [&](const std::string& what) { line += (line.empty() ? "" : "; ") + what; };
  if (const size_t count = playlist.movies().size(); count > 1) {
    add(count == 2 ? "movie 2 (the later Period)"
                   : "movies 2 to " + std::to_string(count) + " (the later Periods)");
  }
  for (const std::string& omission : playlist.omissions())
    add(omission);
  return line.empty() ? line : "A download will not include: " + line;
}

std::string describeInexactRanges(uint64_t inexact, uint64_t listed) {
  if (inexact == 0) return {};
  return "Warning: " + std::to_string(inexact) + " of " +
         counted(listed, "listed resource", "listed resources") +
         " are requested with a byte range that is not exactly the one that the manifest means.";
}

}  // namespace cli
