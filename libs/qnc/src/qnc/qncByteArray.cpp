#include "qnc/qncByteArray.h"

#include <algorithm>

namespace qnc {
namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool isWhiteSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

int sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+' || c == '-') return 62;
  if (c == '/' || c == '_') return 63;
  return -1;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

FastString digits(ByteArrayRef bytes, const char* alphabet) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const uint8_t byte : bytes) {
    text.push_back(alphabet[byte >> 4]);
    text.push_back(alphabet[byte & 15]);
  }
  return FastString(std::move(text));
}

// Whether `rest`, which begins with the first "=" or is empty, ends `sextets` digits correctly.
bool isPadding(std::string_view rest, size_t sextets) {
  size_t pads = 0;
  for (const char c : rest) {
    if (c == '=') {
      ++pads;
    } else if (!isWhiteSpace(c)) {
      return false;
    }
  }
  if (sextets % 4 == 1) return false;
  return pads == 0 || pads == (4 - sextets % 4) % 4;
}

}  // namespace

ByteArrayRef ByteArrayRef::subRef(size_t offset, size_t count) const {
  offset = std::min(offset, size_);
  return {data_ + offset, std::min(count, size_ - offset)};
}

FastString ByteArrayRef::toBase64() const {
  std::string text;
  text.reserve((size_ + 2) / 3 * 4);
  for (size_t i = 0; i < size_; i += 3) {
    const size_t left = size_ - i;
    const uint32_t bits = uint32_t{data_[i]} << 16 | (left > 1 ? uint32_t{data_[i + 1]} << 8 : 0) |
                          (left > 2 ? data_[i + 2] : 0);
    text.push_back(kBase64[bits >> 18]);
    text.push_back(kBase64[bits >> 12 & 63]);
    text.push_back(left > 1 ? kBase64[bits >> 6 & 63] : '=');
    text.push_back(left > 2 ? kBase64[bits & 63] : '=');
  }
  return FastString(std::move(text));
}

FastString ByteArrayRef::toHEX() const {
  return digits(*this, "0123456789ABCDEF");
}
FastString ByteArrayRef::toHex() const {
  return digits(*this, "0123456789abcdef");
}

ByteArray ByteArray::fromBase64(std::string_view text, bool* wellFormed) {
  ByteArray out;
  out.reserve(text.size() / 4 * 3 + 2);
  bool clean = true;
  uint32_t bits = 0;
  size_t sextets = 0;
  size_t i = 0;
  for (; i < text.size() && text[i] != '='; ++i) {
    const int value = sextet(text[i]);
    if (value < 0) {
      clean = clean && isWhiteSpace(text[i]);
      continue;
    }
    bits = bits << 6 | static_cast<uint32_t>(value);
    // The second, third and fourth digit of a group each complete a byte.
    switch (sextets++ % 4) {
      case 1:
        out.append(static_cast<uint8_t>(bits >> 4));
        break;
      case 2:
        out.append(static_cast<uint8_t>(bits >> 2));
        break;
      case 3:
        out.append(static_cast<uint8_t>(bits));
        break;
    }
  }
  if (wellFormed) *wellFormed = clean && isPadding(text.substr(i), sextets);
  return out;
}

ByteArray ByteArray::fromHex(std::string_view text, bool* wellFormed) {
  ByteArray out;
  out.reserve(text.size() / 2);
  int high = -1;
  size_t i = 0;
  for (; i < text.size(); ++i) {
    const int value = hexDigit(text[i]);
    if (value < 0) {
      if (high < 0 && isWhiteSpace(text[i])) continue;
      break;
    }
    if (high >= 0) out.append(static_cast<uint8_t>(high << 4 | value));
    high = high >= 0 ? -1 : value;
  }
  if (wellFormed) *wellFormed = high < 0 && i == text.size();
  return out;
}

}  // namespace qnc
