#include "mpl/dash/TemplateURI.h"

#include <algorithm>
#include <charconv>

#include "mpl/Exception.h"
#include "mpl/ReferenceURI.h"

namespace mpl::dash {

namespace {

constexpr size_t kMaxDigits = 20;  // of 64 bits, with a sign

// As printf with "%0<width>lld".
void appendPadded(std::string& out, int64_t value, size_t width) {
  char digits[kMaxDigits + 1];
  const auto result = std::to_chars(digits, digits + sizeof digits, value);
  const auto size = static_cast<size_t>(result.ptr - digits);
  if (size >= width) {
    out.append(digits, size);
    return;
  }
  const size_t sign = value < 0 ? 1 : 0;
  out.append(digits, sign).append(width - size, '0').append(digits + sign, size - sign);
}

// The width of "%0<width>d".
uint32_t parseWidth(std::string_view format) {
  uint32_t width = 0;
  if (format.size() >= 4 && format.starts_with("%0") && format.back() == 'd') {
    const char* begin = format.data() + 2;
    const char* end = format.data() + format.size() - 1;
    const auto [stop, error] = std::from_chars(begin, end, width);
    if (error == std::errc{} && stop == end && width <= TemplateURI::kMaxWidth) return width;
  }
  throw InvalidArgumentException(qnc::FastString("Invalid template format: ") + format);
}

}  // namespace

TemplateURI::TemplateURI(std::string_view text, std::string_view representationId,
                         int32_t bandwidth) {
  while (!text.empty()) {
    const size_t open = text.find('$');
    addLiteral(text.substr(0, open));
    if (open == std::string_view::npos) break;
    const size_t close = text.find('$', open + 1);
    if (close == std::string_view::npos) {
      throw InvalidArgumentException("Mismatching $-tokens in template URI");
    }
    addToken(text.substr(open, close - open + 1), representationId, bandwidth);
    text.remove_prefix(close + 1);
  }
}

void TemplateURI::addToken(std::string_view token, std::string_view representationId,
                           int32_t bandwidth) {
  if (token == "$$") return addLiteral("$");
  std::string_view identifier = token.substr(1, token.size() - 2);
  const size_t percent = identifier.find('%');
  const bool hasWidth = percent != std::string_view::npos;
  uint32_t width = 1;
  if (hasWidth) {
    width = parseWidth(identifier.substr(percent));
    identifier = identifier.substr(0, percent);
  }
  if (identifier == "RepresentationID" && !hasWidth) return addLiteral(representationId);
  if (identifier == "Number") return addSlot(Value::Number, width);
  if (identifier == "Bandwidth") return addNumber(bandwidth, width);
  if (identifier == "Time") return addSlot(Value::Time, width);
  throw InvalidArgumentException(qnc::FastString("Invalid template: ") + token);
}

void TemplateURI::addLiteral(std::string_view text) {
  grow(text.size());
  literals_.append(text);
  pieces_.back().size += static_cast<uint32_t>(text.size());
}

void TemplateURI::addNumber(int64_t value, uint32_t width) {
  std::string text;
  appendPadded(text, value, width);
  addLiteral(text);
}

void TemplateURI::addSlot(Value value, uint32_t width) {
  grow(std::max<size_t>(width, kMaxDigits));
  pieces_.back().value = value;
  pieces_.back().width = static_cast<uint16_t>(width);
  pieces_.push_back(Piece{static_cast<uint32_t>(literals_.size())});
}

void TemplateURI::grow(size_t size) {
  if (size > kMaxLength - longest_) throw InvalidArgumentException("Template URI too long");
  longest_ += size;
}

qnc::FastString TemplateURI::build(std::string_view text, std::string_view representationId,
                                   int32_t number, int32_t bandwidth, int64_t time) {
  std::string out;
  TemplateURI(text, representationId, bandwidth).append(out, number, time);
  return qnc::FastString(std::move(out));
}

void TemplateURI::append(std::string& out, int32_t number, int64_t time) const {
  for (const Piece& piece : pieces_) {
    out.append(literals_, piece.begin, piece.size);
    if (piece.value != Value::None) {
      appendPadded(out, piece.value == Value::Number ? number : time, piece.width);
    }
  }
}

std::optional<TemplateURI> TemplateURI::resolvedAgainst(std::string_view base) const {
  // Resolution looks at letters, dots and delimiters, never at which digits a segment holds. So a
  // mark of digits stands for each value while the text is resolved; marks that a dot segment has
  // removed stay away. The mark begins and ends with digits found nowhere else in it: it cannot
  // overlap itself.
  constexpr std::string_view kMark = "1000000000000000002";
  constexpr size_t kFirst = 100, kLast = 999;  // a number of three digits follows the mark
  constexpr size_t kSlack = 8;                 // for what resolution inserts
  if (longest_ + base.size() + kSlack > kMaxLength) return std::nullopt;
  if (pieces_.size() > kLast - kFirst || base.find(kMark) != std::string_view::npos ||
      literals_.find(kMark) != std::string::npos) {
    return std::nullopt;
  }
  std::string marked;
  for (size_t i = 0; i < pieces_.size(); ++i) {
    marked.append(literals_, pieces_[i].begin, pieces_[i].size);
    if (pieces_[i].value != Value::None) marked.append(kMark).append(std::to_string(kFirst + i));
  }
  const qnc::FastString resolved = ReferenceURI::resolve(marked, base);
  std::string_view rest = resolved;
  TemplateURI result;
  for (size_t at = rest.find(kMark); at != std::string_view::npos; at = rest.find(kMark)) {
    size_t index = 0;
    const std::string_view digits = rest.substr(at + kMark.size(), 3);
    (void)std::from_chars(digits.data(), digits.data() + digits.size(), index);
    if (index < kFirst || index - kFirst >= pieces_.size()) return std::nullopt;
    const Piece& piece = pieces_[index - kFirst];
    result.addLiteral(rest.substr(0, at));
    result.addSlot(piece.value, piece.width);
    rest.remove_prefix(at + kMark.size() + digits.size());
  }
  result.addLiteral(rest);
  return result;
}

}  // namespace mpl::dash
