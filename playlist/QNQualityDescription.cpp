#include "playlist/QNQualityDescription.h"

#include <array>
#include <charconv>

#include "platform/host/QNPlayerUtils.h"
#include "playlist/QNTrack.h"

namespace quality_description {

std::string thousands(uint32_t value) {
  std::array<char, 32> text;
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value / 1000.0,
                                 std::chars_format::fixed, 1);
  return std::string(text.data(), end.ptr);
}

std::optional<std::string> language(const QNTrack* track) {
  if (!track || !track->language()) return std::nullopt;
  return QNPlayerUtils::localizedLanguage(*track->language());
}

}  // namespace quality_description
