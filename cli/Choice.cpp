#include "cli/Choice.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>
#include <tuple>

#include "cli/Failure.h"
#include "cli/Text.h"

namespace cli {
namespace {

const char* nameOf(QNMediaType type) {
  return type == QNMediaTypeVideo ? "video" : type == QNMediaTypeAudio ? "audio" : "text";
}

// "720p" -> 720.
std::optional<uint32_t> parseHeight(std::string_view text) {
  if (text.size() < 2 || text.back() != 'p') return std::nullopt;
  text.remove_suffix(1);
  uint32_t height = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), height);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return height;
}

std::string describe(const Candidate& candidate) {
  std::string text = candidate.identifier.empty() ? "\"\"" : candidate.identifier;
  if (candidate.type == QNMediaTypeVideo) {
    text += " " + std::to_string(candidate.width) + "x" + std::to_string(candidate.height);
  }
  if (candidate.language) text += " " + *candidate.language;
  if (candidate.bitrate) text += " " + formatBitrate(candidate.bitrate);
  if (candidate.trickMode) text += " (trick mode)";
  return text;
}

std::vector<std::string> listing(const std::vector<Candidate>& candidates) {
  std::vector<std::string> lines;
  for (const QNMediaType type : {QNMediaTypeVideo, QNMediaTypeAudio, QNMediaTypeText}) {
    std::string line;
    for (const Candidate& candidate : candidates) {
      if (candidate.type == type) line += (line.empty() ? "" : ", ") + describe(candidate);
    }
    lines.push_back(std::string("  ") + nameOf(type) + ": " + (line.empty() ? "none" : line));
  }
  return lines;
}

// Orders positions by fewer bits, then fewer lines; of equals the first in the manifest comes
// first.
struct FewerBits {
  const std::vector<Candidate>& candidates;
  bool operator()(size_t a, size_t b) const {
    return std::tie(candidates[a].bitrate, candidates[a].height) <
           std::tie(candidates[b].bitrate, candidates[b].height);
  }
};

// Chooses among the qualities of one media type.
class Chooser {
 public:
  Chooser(const std::vector<Candidate>& candidates, QNMediaType type, bool hasLanguages,
          Chosen& chosen)
      : candidates_(candidates), type_(type), hasLanguages_(hasLanguages), chosen_(chosen) {
    bool onlyTrickMode = true;
    for (size_t i = 0; i < candidates.size(); ++i) {
      if (candidates[i].type != type) continue;
      all_.push_back(i);
      onlyTrickMode = onlyTrickMode && candidates[i].trickMode;
    }
    for (const size_t i : all_) {
      if (onlyTrickMode || !candidates[i].trickMode) renditions_.push_back(i);
    }
  }

  void byDefault() { best(renditions_); }

  void all() { take(all_); }

  void byValue(const std::string& value) {
    if (value == "none") return;
    const size_t before = picked_.size();
    if (value == "all") {
      all();
    } else if (value == "best") {
      best(renditions_);
    } else if (value == "worst" && type_ == QNMediaTypeVideo) {
      if (!renditions_.empty())
        picked_.push_back(
            *std::min_element(renditions_.begin(), renditions_.end(), FewerBits{candidates_}));
    } else if (!byIdentifier(value)) {
      type_ == QNMediaTypeVideo ? byHeight(value) : byLanguage(value);
    }
    if (picked_.size() == before) fail(value);
  }

  const std::vector<size_t>& picked() const { return picked_; }

 private:
  void take(const std::vector<size_t>& indices) {
    picked_.insert(picked_.end(), indices.begin(), indices.end());
  }

  // Video: one over all tracks. Audio and text: one of every track.
  void best(const std::vector<size_t>& among) {
    if (among.empty()) return;
    if (type_ == QNMediaTypeVideo) {
      picked_.push_back(*std::max_element(among.begin(), among.end(), FewerBits{candidates_}));
      return;
    }
    std::set<size_t> tracks;
    for (const size_t i : among)
      tracks.insert(candidates_[i].track);
    for (const size_t track : tracks) {
      std::vector<size_t> ofTrack;
      std::copy_if(among.begin(), among.end(), std::back_inserter(ofTrack),
                   [&](size_t i) { return candidates_[i].track == track; });
      picked_.push_back(*std::max_element(ofTrack.begin(), ofTrack.end(), FewerBits{candidates_}));
    }
  }

  bool byIdentifier(const std::string& value) {
    const size_t before = picked_.size();
    std::copy_if(all_.begin(), all_.end(), std::back_inserter(picked_),
                 [&](size_t i) { return candidates_[i].identifier == value; });
    return picked_.size() > before;
  }

  void byHeight(const std::string& value) {
    const auto wanted = parseHeight(value);
    if (!wanted) return;
    uint32_t height = 0;
    for (const size_t i : renditions_) {
      if (candidates_[i].height <= *wanted) height = std::max(height, candidates_[i].height);
    }
    if (height == 0) return;
    std::vector<size_t> ofHeight;
    std::copy_if(renditions_.begin(), renditions_.end(), std::back_inserter(ofHeight),
                 [&](size_t i) { return candidates_[i].height == height; });
    best(ofHeight);
    if (height != *wanted) {
      chosen_.notices.push_back("There is no " + value + " video; taking " +
                                std::to_string(height) + "p.");
    }
  }

  void byLanguage(const std::string& value) {
    std::vector<size_t> ofLanguage;
    std::copy_if(all_.begin(), all_.end(), std::back_inserter(ofLanguage), [&](size_t i) {
      return candidates_[i].language &&
             primarySubtag(*candidates_[i].language) == primarySubtag(value);
    });
    best(ofLanguage);
  }

  [[noreturn]] void fail(const std::string& value) const {
    std::string message = std::string("--") + nameOf(type_) + " " + value + " matches nothing";
    if (!hasLanguages_ && type_ != QNMediaTypeVideo && !all_.empty()) {
      message += " (Smooth Streaming states no languages; choose by identifier)";
    }
    throw Failure(ExitUsage, message + "; there is:", listing(candidates_));
  }

  const std::vector<Candidate>& candidates_;
  const QNMediaType type_;
  const bool hasLanguages_;
  Chosen& chosen_;
  std::vector<size_t> all_;
  std::vector<size_t> renditions_;  // without trick mode, unless there is nothing else
  std::vector<size_t> picked_;
};

}  // namespace

std::string primarySubtag(const std::string& language) {
  std::string tag = language.substr(0, language.find_first_of("-_"));
  std::transform(tag.begin(), tag.end(), tag.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
  return tag;
}

Chosen choose(const std::vector<Candidate>& candidates, const Choice& choice, bool hasLanguages) {
  Chosen chosen;
  std::set<size_t> picked;
  const std::pair<QNMediaType, const std::vector<std::string>*> options[] = {
      {QNMediaTypeVideo, &choice.video},
      {QNMediaTypeAudio, &choice.audio},
      {QNMediaTypeText, &choice.text}};
  for (const auto& [type, values] : options) {
    Chooser chooser(candidates, type, hasLanguages, chosen);
    if (choice.all) {
      chooser.all();
    } else if (values->empty()) {
      chooser.byDefault();
    } else {
      for (const std::string& value : *values)
        chooser.byValue(value);
    }
    picked.insert(chooser.picked().begin(), chooser.picked().end());
  }
  if (picked.empty()) throw Failure(ExitUsage, "Nothing is chosen; there is:", listing(candidates));
  chosen.indices.assign(picked.begin(), picked.end());
  return chosen;
}

}  // namespace cli
