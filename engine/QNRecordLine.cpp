#include "engine/QNRecordLine.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "engine/QNHash.h"

namespace {

constexpr std::string_view kHeader = "QNMovieDownloadRecord";
constexpr size_t kHashDigits = 16;

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20;
}

// What stands between the quotes of a string, from its first character on; nullopt without an end.
std::optional<size_t> lengthOfString(std::string_view text) {
  for (size_t from = 0;;) {
    const size_t quote = text.find('"', from);
    if (quote == std::string_view::npos) return std::nullopt;
    size_t backslashes = 0;
    while (backslashes < quote && text[quote - 1 - backslashes] == '\\')
      ++backslashes;
    if (backslashes % 2 == 0) return quote;
    from = quote + 1;
  }
}

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

// The escapes are those that are written.
bool isWellEscaped(std::string_view text) {
  for (size_t at = text.find('\\'); at != std::string_view::npos; at = text.find('\\', at)) {
    const std::string_view escape = text.substr(at + 1, 5);
    if (escape.starts_with('"') || escape.starts_with('\\')) {
      at += 2;
    } else if (escape.size() == 5 && escape.starts_with("u00") && isHexDigit(escape[3]) &&
               isHexDigit(escape[4])) {
      at += 6;
    } else {
      return false;
    }
  }
  return true;
}

// The elements of one array, one after the other.
class Elements {
 public:
  explicit Elements(std::string_view line) : rest_(line) { take('['); }

  std::string_view string() {
    separate();
    if (!take('"')) return {};
    const auto length = lengthOfString(rest_);
    if (!length) return fail();
    const std::string_view text = rest_.substr(0, *length);
    rest_.remove_prefix(*length + 1);
    return isWellEscaped(text) ? text : fail();
  }

  uint64_t number() {
    separate();
    uint64_t value = 0;
    const char* const end = rest_.data() + rest_.size();
    const auto [next, error] = std::from_chars(rest_.data(), end, value);
    if (error != std::errc()) fail();
    rest_.remove_prefix(static_cast<size_t>(next - rest_.data()));
    return value;
  }

  [[nodiscard]] bool ended() { return take(']') && rest_.empty() && !failed_; }

 private:
  std::string_view fail() {
    failed_ = true;
    return {};
  }
  bool take(char c) {
    if (!rest_.starts_with(c)) {
      failed_ = true;
      return false;
    }
    rest_.remove_prefix(1);
    return true;
  }
  void separate() {
    if (!std::exchange(first_, false)) take(',');
  }

  std::string_view rest_;
  bool first_ = true;
  bool failed_ = false;
};

std::optional<uint64_t> hashOf(std::string_view digits) {
  uint64_t value = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  const bool whole = error == std::errc() && end == digits.data() + digits.size();
  return digits.size() == kHashDigits && whole ? std::optional(value) : std::nullopt;
}

void appendString(std::string& line, std::string_view text) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  line += '"';
  for (const char c : text) {
    if (isControl(c)) {
      const auto value = static_cast<unsigned char>(c);
      line += "\\u00";
      line += kDigits[value >> 4];
      line += kDigits[value & 15];
      continue;
    }
    if (c == '"' || c == '\\') line += '\\';
    line += c;
  }
  line += '"';
}

void appendNumber(std::string& line, uint64_t value) {
  std::array<char, 20> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  line.append(digits.data(), end);
}

std::string started(std::string_view kind, std::string_view text, size_t more) {
  std::string line;
  line.reserve(kind.size() + text.size() + more + 16);
  line += "[\"";
  line += kind;
  line += "\",";
  appendString(line, text);
  return line;
}

}  // namespace

QNRecordLine QNReadRecordLine(std::string_view line) {
  using Kind = QNRecordLine::Kind;
  QNRecordLine result;
  // A file that lost its bytes with the power holds zeros.
  if (std::any_of(line.begin(), line.end(), isControl)) return result;
  Elements elements(line);
  const std::string_view kind = elements.string();
  Kind read = Kind::Invalid;
  if (kind == "file") {
    read = Kind::File;
    result.place = elements.string();
    result.number = elements.number();
    const std::string_view digits = elements.string();
    result.hash = hashOf(digits);
    result.validator = elements.string();
    result.address = elements.string();
    if (!result.hash && !digits.empty()) return {};
  } else if (kind == "gone") {
    read = Kind::Gone;
    result.place = elements.string();
  } else if (kind == "mark") {
    read = Kind::Mark;
    result.boot = elements.string();
    result.number = elements.number();
  } else if (kind == kHeader) {
    read = Kind::Header;
    result.number = elements.number();
  }
  if (read == Kind::Invalid || !elements.ended()) return {};
  result.kind = read;
  return result;
}

std::string QNUnescaped(std::string_view escaped) {
  std::string text;
  text.reserve(escaped.size());
  for (size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] != '\\' || i + 1 == escaped.size()) {
      text += escaped[i];
    } else if (escaped[++i] == 'u' && i + 4 < escaped.size()) {
      unsigned value = 0;
      std::from_chars(escaped.data() + i + 1, escaped.data() + i + 5, value, 16);
      text += static_cast<char>(value);
      i += 4;
    } else {
      text += escaped[i];
    }
  }
  return text;
}

std::string QNRecordHeader(uint64_t version) {
  std::string line = "[\"";
  line += kHeader;
  line += "\",";
  appendNumber(line, version);
  return line += "]\n";
}

std::string QNRecordFile(std::string_view place, uint64_t length, std::optional<uint64_t> hash,
                         std::string_view validator, std::string_view address) {
  std::string line = started("file", place, validator.size() + address.size() + 64);
  line += ',';
  appendNumber(line, length);
  line += ",\"";
  if (hash) line += QNHexDigits(*hash);
  line += "\",";
  appendString(line, validator);
  line += ',';
  appendString(line, address);
  return line += "]\n";
}

std::string QNRecordGone(std::string_view place) {
  return started("gone", place, 4) += "]\n";
}

std::string QNRecordMark(std::string_view boot, uint64_t end) {
  std::string line = started("mark", boot, 32);
  line += ',';
  appendNumber(line, end);
  return line += "]\n";
}
