#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Text as a person reads it.
namespace cli {

// What came from a manifest, a server or a file name, made safe for a terminal: control characters,
// invalid UTF-8 and characters that turn the direction of writing become U+FFFD, line breaks and
// tabs a blank, blanks at the end go.
std::string forTerminal(std::string_view text);

// Columns that `text` (already safe) takes on a terminal.
size_t displayWidth(std::string_view text);
// Cut to at most `columns`, with "..." at the end when something is cut.
std::string fitted(std::string_view text, size_t columns);
// Filled up with blanks to `columns`; longer text is cut.
std::string padded(std::string_view text, size_t columns);

std::string formatBytes(int64_t bytes);             // "391 kB", decimal units; "?" when negative
std::string formatBitrate(uint64_t bitsPerSecond);  // "1.2 Mbit/s"; "?" for 0
std::string formatSeconds(double seconds);  // "1:02:03", "0:16"; "?" when negative or not finite
// "1 quality", "2 qualities".
std::string counted(uint64_t count, std::string_view one, std::string_view many);

}  // namespace cli
