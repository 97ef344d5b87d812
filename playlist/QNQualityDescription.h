#pragma once

#include <cstdint>
#include <optional>
#include <string>

class QNTrack;

// Pieces of the descriptions that qualities carry. Not a public header.
namespace quality_description {

// `value` / 1000 with one digit after the point, whatever the locale.
std::string thousands(uint32_t value);
// The display name of the track's language; nullopt without a track, without a language, or when
// the host knows none.
std::optional<std::string> language(const QNTrack* track);

}  // namespace quality_description
