#pragma once

#include <charconv>
#include <compare>
#include <concepts>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qnc {

// Reads a whole text as a decimal integer: an optional "+" or "-", then digits, nothing before or
// after (no white space either). False, and `out` unchanged, for anything else and for a value that
// T cannot hold; an unsigned T takes no "-".
template <std::integral T>
[[nodiscard]] bool parseDecimal(std::string_view text, T& out) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return false;
  }
  T value{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, 10);
  if (error != std::errc{} || stop != end || text.empty()) return false;
  out = value;
  return true;
}

// A text of bytes, by convention UTF-8 (nothing is checked until asked). A thin value over
// std::string: it converts freely from texts and to string_view, and it compares with anything that
// is a text, byte by byte.
class FastString {
 public:
  static constexpr size_t npos = std::string::npos;

  FastString() = default;
  FastString(const char* text) : text_(text ? text : "") {}  // NOLINT: a text is a text
  FastString(std::string text) : text_(std::move(text)) {}   // NOLINT
  FastString(std::string_view text) : text_(text) {}         // NOLINT
  FastString(const void* data, size_t size) : text_(static_cast<const char*>(data), size) {}
  FastString(size_t count, char c) : text_(count, c) {}

  // As printf.
  [[gnu::format(printf, 1, 2)]] static FastString format(const char* format, ...);
  template <std::integral T>
  static FastString fromNumber(T value) {
    return FastString(std::to_string(value));
  }

  // UTF-16 in native byte order. An unpaired surrogate becomes U+FFFD; fromUTF16 tells through
  // `valid`, when given, whether there was none. toUTF16 replaces bytes that are not UTF-8
  // likewise.
  static FastString fromUTF16(std::u16string_view text, bool* valid = nullptr);
  std::u16string toUTF16() const;
  bool isValidUTF8() const;
  // How many bytes at the beginning of a text are UTF-8.
  static size_t validPrefixUTF8(std::string_view text);
  // The text with every sequence that is not UTF-8 replaced by U+FFFD.
  FastString toValidUTF8() const;
  // Number of code points; -1 when the text is not UTF-8.
  int64_t codePointCount() const;

  const std::string& str() const& { return text_; }
  std::string str() && { return std::move(text_); }
  std::string_view view() const { return text_; }
  operator std::string_view() const { return text_; }  // NOLINT
  const char* c_str() const { return text_.c_str(); }
  const char* data() const { return text_.data(); }
  size_t length() const { return text_.size(); }
  size_t size() const { return text_.size(); }
  bool empty() const { return text_.empty(); }
  char operator[](size_t index) const { return text_[index]; }
  auto begin() const { return text_.begin(); }
  auto end() const { return text_.end(); }

  void clear() { text_.clear(); }
  void reserve(size_t size) { text_.reserve(size); }
  FastString& append(std::string_view text) {
    text_.append(text);
    return *this;
  }
  FastString& operator+=(std::string_view text) { return append(text); }
  FastString& operator+=(char c) {
    text_.push_back(c);
    return *this;
  }

  bool startsWith(std::string_view prefix) const { return text_.starts_with(prefix); }
  bool endsWith(std::string_view suffix) const { return text_.ends_with(suffix); }
  bool contains(std::string_view part) const { return text_.find(part) != npos; }
  size_t find(std::string_view part, size_t from = 0) const { return text_.find(part, from); }
  size_t find(char c, size_t from = 0) const { return text_.find(c, from); }
  size_t rfind(char c) const { return text_.rfind(c); }
  // Empty when `from` lies beyond the end.
  FastString substr(size_t from, size_t count = npos) const;
  // Without white space (blank, tab, CR, LF) at both ends.
  FastString trimmed() const;
  FastString toLowerASCII() const;
  FastString toUpperASCII() const;
  // The pieces between separators; a text without one is one piece.
  std::vector<FastString> split(char separator) const;

  // Replaces every occurrence from left to right; what was put in is not searched again. Returns
  // how many there were; an empty `from` replaces nothing.
  size_t replaceAll(std::string_view from, std::string_view to);

  // parseDecimal of the whole text, or the default.
  int32_t toInt32(int32_t defaultValue = 0) const { return toNumber(defaultValue); }
  int64_t toInt64(int64_t defaultValue = 0) const { return toNumber(defaultValue); }
  uint32_t toUInt32(uint32_t defaultValue = 0) const { return toNumber(defaultValue); }
  uint64_t toUInt64(uint64_t defaultValue = 0) const { return toNumber(defaultValue); }

  template <std::convertible_to<std::string_view> T>
  friend bool operator==(const FastString& a, const T& b) {
    return a.view() == static_cast<std::string_view>(b);
  }
  template <std::convertible_to<std::string_view> T>
  friend std::strong_ordering operator<=>(const FastString& a, const T& b) {
    return a.view() <=> static_cast<std::string_view>(b);
  }
  friend FastString operator+(FastString a, std::string_view b) { return std::move(a.append(b)); }
  friend std::ostream& operator<<(std::ostream& stream, const FastString& text) {
    return stream << text.text_;
  }

 private:
  template <std::integral T>
  T toNumber(T value) const {
    (void)!parseDecimal(text_, value);
    return value;
  }

  std::string text_;
};

// `text` without white space (blank, tab, CR, LF) at both ends.
std::string_view trimmed(std::string_view text);

}  // namespace qnc

template <>
struct std::hash<qnc::FastString> {
  size_t operator()(const qnc::FastString& text) const noexcept {
    return std::hash<std::string_view>{}(text.view());
  }
};
