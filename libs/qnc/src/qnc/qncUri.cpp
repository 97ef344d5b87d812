#include "qnc/qncUri.h"

#include <array>
#include <charconv>

namespace qnc {
namespace {

using Text = std::string_view;
using OptionalText = std::optional<std::string_view>;

bool isAlpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isOneOf(char c, Text set) {
  return set.find(c) != Text::npos;
}

int hexDigit(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isEscape(Text text) {
  return text.size() >= 3 && text[0] == '%' && hexDigit(text[1]) >= 0 && hexDigit(text[2]) >= 0;
}

// RFC 3986 sections 2.2 and 2.3: what every component takes.
bool isUnreservedOrSubDelim(char c) {
  static constexpr auto kTable = [] {
    std::array<bool, 256> table{};
    for (const char known : Text("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                 "-._~!$&'()*+,;="))
      table[static_cast<unsigned char>(known)] = true;
    return table;
  }();
  return kTable[static_cast<unsigned char>(c)];
}

// Length of a scheme that is followed by a colon; 0 when there is none (section 3.1).
size_t schemeLength(Text text) {
  if (text.empty() || !isAlpha(text[0])) return 0;
  size_t i = 1;
  while (i < text.size() && (isAlpha(text[i]) || isDigit(text[i]) || isOneOf(text[i], "+-.")))
    ++i;
  return i < text.size() && text[i] == ':' ? i : 0;
}

struct Components {
  OptionalText scheme, authority;
  Text path;
  OptionalText query, fragment;
};

// Appendix B, except that a scheme is one by its grammar only.
Components split(Text text) {
  Components parts;
  if (const size_t length = schemeLength(text)) {
    parts.scheme = text.substr(0, length);
    text.remove_prefix(length + 1);
  }
  if (text.starts_with("//")) {
    const size_t end = std::min(text.find_first_of("/?#", 2), text.size());
    parts.authority = text.substr(2, end - 2);
    text.remove_prefix(end);
  }
  if (const size_t hash = text.find('#'); hash != Text::npos) {
    parts.fragment = text.substr(hash + 1);
    text = text.substr(0, hash);
  }
  if (const size_t mark = text.find('?'); mark != Text::npos) {
    parts.query = text.substr(mark + 1);
    text = text.substr(0, mark);
  }
  parts.path = text;
  return parts;
}

struct Authority {
  OptionalText user;
  Text host;
  OptionalText port;
};

Authority splitAuthority(Text text) {
  Authority parts;
  if (const size_t at = text.rfind('@'); at != Text::npos) {
    parts.user = text.substr(0, at);
    text.remove_prefix(at + 1);
  }
  const size_t bracket = text.starts_with('[') ? text.find(']') : Text::npos;
  const size_t colon = text.rfind(':');
  if (colon != Text::npos && (bracket == Text::npos || colon > bracket)) {
    parts.port = text.substr(colon + 1);
    text = text.substr(0, colon);
  }
  parts.host = text;
  return parts;
}

bool mayHoldDotSegments(Text path) {
  return path.starts_with('.') || path.find("/.") != Text::npos;
}

void dropLastSegment(std::string& path) {
  const size_t slash = path.rfind('/');
  path.erase(slash == std::string::npos ? 0 : slash);
}

// Section 5.2.4, to the letter.
std::string removeDotSegments(Text in) {
  std::string out;
  out.reserve(in.size());
  while (!in.empty()) {
    if (in.starts_with("../")) {
      in.remove_prefix(3);
    } else if (in.starts_with("./") || in.starts_with("/./")) {
      in.remove_prefix(2);
    } else if (in.starts_with("/../")) {
      in.remove_prefix(3);
      dropLastSegment(out);
    } else if (in == "/.") {
      in = "/";
    } else if (in == "/..") {
      in = "/";
      dropLastSegment(out);
    } else if (in == "." || in == "..") {
      in = {};
    } else {
      const size_t end = std::min(in.find('/', 1), in.size());
      out.append(in.substr(0, end));
      in.remove_prefix(end);
    }
  }
  return out;
}

// The same for a path that belongs to no root: what climbs out survives at the front.
std::string removeRelativeDotSegments(Text in) {
  std::string out;
  out.reserve(in.size());
  size_t floor = 0;  // end of the surviving "../"; what follows is whole segments with their "/"
  while (!in.empty()) {
    const size_t slash = in.find('/');
    const Text segment = in.substr(0, slash);
    in.remove_prefix(slash == Text::npos ? in.size() : slash + 1);
    if (segment == ".") continue;
    if (segment != "..") {
      out.append(segment);
      if (slash != Text::npos) out.push_back('/');
    } else if (out.size() == floor) {
      out.append("../");
      floor = out.size();
    } else {
      const size_t previous = out.size() < 2 ? std::string::npos : out.rfind('/', out.size() - 2);
      out.erase(previous == std::string::npos ? floor : std::max(floor, previous + 1));
    }
  }
  return out;
}

// A relative path that is empty, begins with "/" or with something like a scheme would read as
// something else.
bool needsDotPrefix(Text path) {
  return path.empty() || path.front() == '/' || schemeLength(path) > 0;
}

std::string normalisedPath(const Components& target) {
  const bool relative = !target.scheme && !target.authority && !target.path.starts_with('/');
  std::string path;
  if (!mayHoldDotSegments(target.path)) {
    path = target.path;
  } else {
    path = relative ? removeRelativeDotSegments(target.path) : removeDotSegments(target.path);
  }
  if (relative && !target.path.empty() && needsDotPrefix(path)) path.insert(0, "./");
  // Without an authority "//" would begin one.
  if (!target.authority && path.starts_with("//")) path.insert(0, "/.");
  return path;
}

std::string compose(const Components& parts, Text path) {
  std::string text;
  text.reserve((parts.scheme ? parts.scheme->size() + 1 : 0) +
               (parts.authority ? parts.authority->size() + 2 : 0) + path.size() +
               (parts.query ? parts.query->size() + 1 : 0) +
               (parts.fragment ? parts.fragment->size() + 1 : 0));
  if (parts.scheme) text.append(*parts.scheme).push_back(':');
  if (parts.authority) text.append("//").append(*parts.authority);
  text.append(path);
  if (parts.query) text.append("?").append(*parts.query);
  if (parts.fragment) text.append("#").append(*parts.fragment);
  return text;
}

// Section 5.2.3.
std::string mergedPath(const Components& base, Text reference) {
  std::string path;
  if (base.authority && base.path.empty()) {
    path = "/";
  } else {
    path = base.path.substr(0, base.path.rfind('/') + 1);
  }
  return path.append(reference);
}

// Section 5.2.2.
std::string resolveAgainst(const Components& base, const Components& reference) {
  Components target = reference;
  if (reference.scheme || reference.authority) {
    if (!reference.scheme) target.scheme = base.scheme;
    return compose(target, normalisedPath(target));
  }
  target.scheme = base.scheme;
  target.authority = base.authority;
  if (reference.path.empty()) {
    if (!reference.query) target.query = base.query;
    return compose(target, base.path);
  }
  std::string merged;
  if (!reference.path.starts_with('/')) {
    merged = mergedPath(base, reference.path);
    target.path = merged;
  }
  return compose(target, normalisedPath(target));
}

// Appends `text` with everything but unreserved characters, sub-delimiters, escapes and `also`
// percent-encoded.
void appendEncoded(std::string& out, Text text, Text also) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (isUnreservedOrSubDelim(c) || isOneOf(c, also) || isEscape(text.substr(i, 3))) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kDigits[static_cast<unsigned char>(c) >> 4]);
      out.push_back(kDigits[static_cast<unsigned char>(c) & 15]);
    }
  }
}

void appendEncodedHost(std::string& out, Text host) {
  if (!host.starts_with('[') || host.find(']') != host.size() - 1) {
    return appendEncoded(out, host, {});
  }
  out.push_back('[');
  appendEncoded(out, host.substr(1, host.size() - 2), ":");
  out.push_back(']');
}

void appendEncodedAuthority(std::string& out, Text text) {
  const Authority authority = splitAuthority(text);
  if (authority.user) {
    appendEncoded(out, *authority.user, ":");
    out.push_back('@');
  }
  appendEncodedHost(out, authority.host);
  if (authority.port) {
    out.push_back(':');
    appendEncoded(out, *authority.port, {});
  }
}

}  // namespace

URI::URI(std::string_view text) : text_(text) {
  const Components parts = split(text_);
  const auto locate = [this](Text part) {
    return Part{static_cast<size_t>(part.data() - text_.data()), part.size(), true};
  };
  if (parts.scheme) scheme_ = locate(*parts.scheme);
  if (parts.authority) authority_ = locate(*parts.authority);
  path_ = locate(parts.path);
  if (parts.query) query_ = locate(*parts.query);
  if (parts.fragment) fragment_ = locate(*parts.fragment);
}

std::optional<std::string_view> URI::userInfo() const {
  return authority() ? splitAuthority(*authority()).user : std::nullopt;
}

std::optional<std::string_view> URI::host() const {
  if (!authority()) return std::nullopt;
  return splitAuthority(*authority()).host;
}

std::optional<std::string_view> URI::port() const {
  return authority() ? splitAuthority(*authority()).port : std::nullopt;
}

std::optional<uint16_t> URI::portNumber() const {
  const OptionalText digits = port();
  uint16_t number = 0;
  if (!digits || digits->empty()) return std::nullopt;
  const char* end = digits->data() + digits->size();
  const auto [stop, error] = std::from_chars(digits->data(), end, number);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return number;
}

std::string URI::resolve(std::string_view reference) const {
  const Components base{scheme(), authority(), path(), query(), fragment()};
  return resolveAgainst(base, split(reference));
}

FastString URI::resolve(std::string_view reference, std::string_view base) {
  return FastString(resolveAgainst(split(base), split(reference)));
}

std::string URI::encoded() const {
  std::string out;
  out.reserve(text_.size());
  if (scheme()) out.append(*scheme()).push_back(':');
  if (authority()) {
    out.append("//");
    appendEncodedAuthority(out, *authority());
  }
  appendEncoded(out, path(), ":@/");
  if (query()) {
    out.push_back('?');
    appendEncoded(out, *query(), ":@/?");
  }
  if (fragment()) {
    out.push_back('#');
    appendEncoded(out, *fragment(), ":@/?");
  }
  return out;
}

std::string URI::percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && isEscape(text.substr(i, 3))) {
      out.push_back(static_cast<char>(hexDigit(text[i + 1]) << 4 | hexDigit(text[i + 2])));
      i += 2;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

}  // namespace qnc
