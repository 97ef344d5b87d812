#include "playlist/QNTextQuality.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "playlist/QNQualityDescription.h"
#include "playlist/QNTrack.h"

namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool containsIgnoringCase(std::string_view text, std::string_view lowerCaseWord) {
  return std::search(text.begin(), text.end(), lowerCaseWord.begin(), lowerCaseWord.end(),
                     [](char a, char b) { return lower(a) == b; }) != text.end();
}

std::string formatTag(const QNTrack* track) {
  if (!track || !track->name()) return {};
  if (containsIgnoringCase(*track->name(), "ttml")) return "[TTML]";
  if (containsIgnoringCase(*track->name(), "vtt")) return "[VTT]";
  return {};
}

std::optional<std::string> describe(const QNTrack* track) {
  auto language = quality_description::language(track);
  const std::string tag = formatTag(track);
  if (tag.empty()) return language;
  return language.value_or("(null)") + " " + tag;
}

}  // namespace

QNTextQuality::QNTextQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                             std::optional<std::string> fourCC, std::string identifier,
                             uint32_t bitrate, uint32_t width, uint32_t height,
                             std::optional<std::string> text,
                             const std::shared_ptr<QNTrack>& parent)
    : QNQuality(std::move(resourceBuilder), describe(parent.get()), std::move(fourCC),
                std::move(identifier), QNMediaTypeText, bitrate, parent),
      width_(width),
      height_(height),
      text_(std::move(text)) {}

QNTextQuality::~QNTextQuality() = default;
