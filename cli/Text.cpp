#include "cli/Text.h"

#include <cmath>
#include <cstdio>

namespace cli {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// One code point from the front of `text`, which is shortened; U+FFFD and one byte for what is not
// UTF-8 (RFC 3629).
char32_t takeCodePoint(std::string_view& text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  size_t length = 1;
  char32_t point = lead;
  char32_t least = 0;
  if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, point = lead & 0x07, least = 0x10000;
  } else if (lead >= 0xE0 && lead < 0xF0) {
    length = 3, point = lead & 0x0F, least = 0x800;
  } else if (lead >= 0xC0 && lead < 0xE0) {
    length = 2, point = lead & 0x1F, least = 0x80;
  } else if (lead >= 0x80) {
    text.remove_prefix(1);
    return kReplacement;
  }
  bool valid = text.size() >= length;
  for (size_t i = 1; valid && i < length; ++i) {
    valid = (byte(i) & 0xC0) == 0x80;
    point = point << 6 | (byte(i) & 0x3F);
  }
  valid = valid && point >= least && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
  text.remove_prefix(valid ? length : 1);
  return valid ? point : kReplacement;
}

void append(std::string& out, char32_t point) {
  if (point < 0x80) {
    out += static_cast<char>(point);
    return;
  }
  if (point < 0x800) {
    out += static_cast<char>(0xC0 | point >> 6);
  } else {
    if (point < 0x10000) {
      out += static_cast<char>(0xE0 | point >> 12);
    } else {
      out += static_cast<char>(0xF0 | point >> 18);
      out += static_cast<char>(0x80 | (point >> 12 & 0x3F));
    }
    out += static_cast<char>(0x80 | (point >> 6 & 0x3F));
  }
  out += static_cast<char>(0x80 | (point & 0x3F));
}

// C0, DEL and C1 drive terminals; the others change the order in which what follows is shown.
bool isUnsafe(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x061C || c == 0x200B || c == 0x200E ||
         c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F) ||
         c == 0xFEFF || (c >= 0xFFF9 && c <= 0xFFFB) || (c >= 0xE0000 && c <= 0xE0FFF);
}

size_t width(char32_t c) {
  if ((c >= 0x0300 && c <= 0x036F) || (c >= 0xFE00 && c <= 0xFE0F)) return 0;
  const bool wide = (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF) ||
                    (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) ||
                    (c >= 0xFE30 && c <= 0xFE6F) || (c >= 0xFF00 && c <= 0xFF60) ||
                    (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1FAFF) ||
                    (c >= 0x20000 && c <= 0x3FFFD);
  return wide ? 2 : 1;
}

std::string scaled(double value, const char* const* units, size_t count) {
  size_t unit = 0;
  while (unit + 1 < count && value >= 999.5) {
    value /= 1000;
    ++unit;
  }
  char text[64];
  std::snprintf(text, sizeof text, unit > 0 && value < 9.95 ? "%.1f %s" : "%.0f %s", value,
                units[unit]);
  return text;
}

}  // namespace

std::string forTerminal(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const char32_t point = takeCodePoint(text);
    const bool isBreak =
        point == '\n' || point == '\r' || point == '\t' || point == 0x2028 || point == 0x2029;
    append(out, isBreak ? U' ' : isUnsafe(point) ? kReplacement : point);
  }
  while (!out.empty() && out.back() == ' ')
    out.pop_back();
  return out;
}

size_t displayWidth(std::string_view text) {
  size_t columns = 0;
  while (!text.empty())
    columns += width(takeCodePoint(text));
  return columns;
}

std::string fitted(std::string_view text, size_t columns) {
  if (displayWidth(text) <= columns) return std::string(text);
  if (columns <= 3) return std::string(columns, '.');
  std::string out;
  size_t used = 0;
  while (!text.empty()) {
    const char32_t point = takeCodePoint(text);
    if (used + width(point) > columns - 3) break;
    used += width(point);
    append(out, point);
  }
  return out + "...";
}

std::string padded(std::string_view text, size_t columns) {
  std::string out = fitted(text, columns);
  out.append(columns - displayWidth(out), ' ');
  return out;
}

std::string formatBytes(int64_t bytes) {
  static const char* const units[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
  if (bytes < 0) return "?";
  return scaled(static_cast<double>(bytes), units, std::size(units));
}

std::string formatBitrate(uint64_t bitsPerSecond) {
  static const char* const units[] = {"bit/s", "kbit/s", "Mbit/s", "Gbit/s"};
  if (bitsPerSecond == 0) return "?";
  return scaled(static_cast<double>(bitsPerSecond), units, std::size(units));
}

std::string formatSeconds(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0 || seconds > 1e9) return "?";
  const auto whole = static_cast<long long>(std::llround(seconds));
  char text[64];
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                  whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
  }
  return text;
}

std::string counted(uint64_t count, std::string_view one, std::string_view many) {
  std::string text = std::to_string(count) + " ";
  text += count == 1 ? one : many;
  return text;
}

}  // namespace cli
