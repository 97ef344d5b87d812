#include "qnc/qncFastString.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>

#include <utf8.h>

namespace qnc {
namespace {

constexpr std::string_view kWhiteSpace = " \t\r\n";
constexpr char32_t kReplacement = 0xFFFD;

bool isHighSurrogate(char16_t unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}
bool isLowSurrogate(char16_t unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

FastString FastString::format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return FastString(std::move(text));
}

FastString FastString::fromUTF16(std::u16string_view text, bool* valid) {
  std::string out;
  out.reserve(text.size());
  bool paired = true;
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t point = text[i];
    if (isHighSurrogate(text[i]) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
      point = 0x10000 + ((point - 0xD800) << 10) + (text[++i] - 0xDC00);
    } else if (isHighSurrogate(text[i]) || isLowSurrogate(text[i])) {
      point = kReplacement;
      paired = false;
    }
    utf8::append(point, std::back_inserter(out));
  }
  if (valid) *valid = paired;
  return FastString(std::move(out));
}

std::u16string FastString::toUTF16() const {
  const FastString valid = toValidUTF8();
  std::u16string out;
  out.reserve(valid.size());
  utf8::utf8to16(valid.begin(), valid.end(), std::back_inserter(out));
  return out;
}

bool FastString::isValidUTF8() const {
  return utf8::is_valid(text_.begin(), text_.end());
}

size_t FastString::validPrefixUTF8(std::string_view text) {
  return static_cast<size_t>(utf8::find_invalid(text.begin(), text.end()) - text.begin());
}

FastString FastString::toValidUTF8() const {
  if (isValidUTF8()) return *this;
  std::string out;
  utf8::replace_invalid(text_.begin(), text_.end(), std::back_inserter(out), kReplacement);
  return FastString(std::move(out));
}

int64_t FastString::codePointCount() const {
  if (!isValidUTF8()) return -1;
  return utf8::unchecked::distance(text_.begin(), text_.end());
}

FastString FastString::substr(size_t from, size_t count) const {
  if (from > text_.size()) return {};
  return FastString(text_.substr(from, count));
}

FastString FastString::trimmed() const {
  return FastString(qnc::trimmed(view()));
}

FastString FastString::toLowerASCII() const {
  std::string out = text_;
  std::transform(out.begin(), out.end(), out.begin(), lower);
  return FastString(std::move(out));
}

FastString FastString::toUpperASCII() const {
  std::string out = text_;
  std::transform(out.begin(), out.end(), out.begin(), upper);
  return FastString(std::move(out));
}

std::vector<FastString> FastString::split(char separator) const {
  std::vector<FastString> pieces;
  size_t from = 0;
  for (size_t at; (at = text_.find(separator, from)) != npos; from = at + 1) {
    pieces.emplace_back(view().substr(from, at - from));
  }
  pieces.emplace_back(view().substr(from));
  return pieces;
}

size_t FastString::replaceAll(std::string_view from, std::string_view to) {
  size_t at = from.empty() ? npos : text_.find(from);
  if (at == npos) return 0;
  std::string out;
  size_t copied = 0;
  size_t count = 0;
  for (; at != npos; at = text_.find(from, copied)) {
    out.append(text_, copied, at - copied).append(to);
    copied = at + from.size();
    ++count;
  }
  out.append(text_, copied);
  text_ = std::move(out);
  return count;
}

}  // namespace qnc
