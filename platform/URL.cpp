#include "platform/URL.h"

#include <algorithm>
#include <array>
#include <climits>
#include <utility>

#include <unistd.h>

#include "qnc/qncFastString.h"
#include "qnc/qncUri.h"

namespace platform {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

std::optional<std::string> owned(std::optional<std::string_view> view) {
  return view ? std::optional<std::string>(*view) : std::nullopt;
}

bool hasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
}

// An opened IP literal is closed, and nothing but a port follows it (RFC 3986 section 3.2.2).
bool hasBrokenLiteral(std::string_view authority) {
  const size_t at = authority.rfind('@');
  if (at != std::string_view::npos) authority.remove_prefix(at + 1);
  if (!authority.starts_with('[')) return false;
  const size_t end = authority.find(']');
  if (end == std::string_view::npos) return true;
  const auto rest = authority.substr(end + 1);
  return !rest.empty() && !rest.starts_with(':');
}

bool isReference(const qnc::URI& uri) {
  if (hasControlCharacter(uri.str())) return false;
  if (const auto authority = uri.authority(); authority && hasBrokenLiteral(*authority)) {
    return false;
  }
  const auto port = uri.port();
  return !port || port->empty() || uri.portNumber();
}

constexpr auto kMayStandInPath = [] {  // RFC 3986 section 3.3: pchar and "/"
  std::array<bool, 256> table{};
  for (const char c :
       std::string_view("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                        "-._~!$&'()*+,;=:@/"))
    table[static_cast<unsigned char>(c)] = true;
  return table;
}();

void appendEncoded(std::string& out, char c) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  out += {'%', digits[byte >> 4], digits[byte & 15]};
}

void appendEncodedPath(std::string& out, std::string_view path) {
  for (const char c : path) {
    if (kMayStandInPath[static_cast<unsigned char>(c)]) {
      out += c;
    } else {
      appendEncoded(out, c);
    }
  }
}

std::string currentDirectory() {
  std::array<char, PATH_MAX> buffer{};
  return getcwd(buffer.data(), buffer.size()) ? buffer.data() : "/";
}

std::string_view defaultPort(std::string_view scheme) {
  if (scheme == "http") return "80";
  if (scheme == "https") return "443";
  return "";
}

}  // namespace

std::shared_ptr<const URL> URL::URLWithString(std::string_view text) {
  const qnc::URI uri(text);
  if (text.empty() || !isReference(uri)) return nullptr;
  return std::make_shared<const URL>(uri.encoded());
}

std::shared_ptr<const URL> URL::URLWithString(std::string_view text,
                                              const std::shared_ptr<const URL>& base) {
  if (!base) return URLWithString(text);
  if (!isReference(qnc::URI(text))) return nullptr;
  return URLWithString(qnc::URI(base->absoluteString()).resolve(text));
}

std::shared_ptr<const URL> URL::fileURLWithPath(std::string_view path) {
  std::string text;
  text.reserve(path.size() + 16);
  text += "file://";
  if (!path.starts_with('/')) {
    appendEncodedPath(text, currentDirectory());
    text += '/';
  }
  appendEncodedPath(text, path);
  return std::make_shared<const URL>(std::move(text));
}

std::string URL::encodingInvalidBytes(std::string_view text) {
  std::string out;
  for (;;) {
    const size_t valid = qnc::FastString::validPrefixUTF8(text);
    out.append(text.substr(0, valid));
    if (valid == text.size()) return out;
    appendEncoded(out, text[valid]);
    text.remove_prefix(valid + 1);
  }
}

URL::URL(std::string text) : text_(std::move(text)) {}

std::optional<std::string> URL::scheme() const {
  return owned(qnc::URI(text_).scheme());
}

std::optional<std::string> URL::user() const {
  const qnc::URI uri(text_);
  const auto info = uri.userInfo();
  if (!info) return std::nullopt;
  return std::string(info->substr(0, info->find(':')));
}

std::optional<std::string> URL::host() const {
  const qnc::URI uri(text_);
  auto host = uri.host();
  if (!host || host->empty()) return std::nullopt;
  if (host->starts_with('[') && host->ends_with(']')) host = host->substr(1, host->size() - 2);
  return std::string(*host);
}

std::optional<uint16_t> URL::port() const {
  return qnc::URI(text_).portNumber();
}

std::string URL::path() const {
  return std::string(qnc::URI(text_).path());
}

std::optional<std::string> URL::query() const {
  return owned(qnc::URI(text_).query());
}

std::optional<std::string> URL::fragment() const {
  return owned(qnc::URI(text_).fragment());
}

bool URL::isHTTP() const {
  const qnc::URI uri(text_);
  const std::string name = lowered(uri.scheme().value_or(""));
  return (name == "http" || name == "https") && !uri.host().value_or("").empty();
}

std::optional<std::string> URL::filePath() const {
  const qnc::URI uri(text_);
  const std::string machine = lowered(uri.host().value_or(""));
  const bool isLocal = machine.empty() || machine == "localhost";
  if (lowered(uri.scheme().value_or("")) != "file" || !isLocal) return std::nullopt;
  std::string path = qnc::URI::percentDecode(uri.path());
  const bool isPath = path.starts_with('/') && path.find('\0') == std::string::npos;
  return isPath ? std::optional(std::move(path)) : std::nullopt;
}

std::string URL::origin() const {
  const qnc::URI uri(text_);
  const std::string name = lowered(uri.scheme().value_or(""));
  const auto number = uri.portNumber();
  const std::string port = number ? std::to_string(*number) : std::string(defaultPort(name));
  return name + "://" + lowered(uri.host().value_or("")) + (port.empty() ? "" : ":" + port);
}

bool URL::isOrigin() const {
  const std::string below = path();
  return isHTTP() && (below.empty() || below == "/") && !user() && !query() && !fragment();
}

}  // namespace platform
