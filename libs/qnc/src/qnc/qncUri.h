#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qnc/qncFastString.h"

namespace qnc {

// A URI reference by RFC 3986: the text as written and where its components lie. Nothing here
// throws or refuses: any text is split by the rules of appendix B, also one with characters that
// the grammar does not allow (a blank, "|",
// "{", "%zz", bytes above 0x7F), and those are kept. encode() makes what can be requested.
//
// References resolve against bases without a scheme too, which the RFC does not treat: dot segments
// are resolved and those that climb above a relative base survive at the front, so that the result
// still resolves to the right place against whatever absolute base comes later ("../x" against ""
// stays "../x"; against "d/" it is "x"). A result that would read as something else is guarded by
// "./": "d/../a:b" becomes "./a:b", "d/.." becomes "./".
class URI {
 public:
  URI() = default;
  URI(std::string_view text);                                         // NOLINT
  URI(const char* text) : URI(std::string_view(text ? text : "")) {}  // NOLINT
  URI(const std::string& text) : URI(std::string_view(text)) {}       // NOLINT
  URI(const FastString& text) : URI(text.view()) {}                   // NOLINT

  const std::string& str() const { return text_; }
  FastString toString() const { return FastString(text_); }

  // Components as written, without their delimiters; nullopt when absent, which is not the same as
  // empty. The views live as long as this object.
  std::optional<std::string_view> scheme() const { return part(scheme_); }
  std::optional<std::string_view> authority() const { return part(authority_); }
  std::string_view path() const { return std::string_view(text_).substr(path_.begin, path_.size); }
  std::optional<std::string_view> query() const { return part(query_); }
  std::optional<std::string_view> fragment() const { return part(fragment_); }

  // Parts of the authority. The user ends at the last "@". An IP literal is given with its
  // brackets. `port` is the text after the colon; portNumber is nullopt when there is none, when it
  // is empty or no number of 16 bits.
  std::optional<std::string_view> userInfo() const;
  std::optional<std::string_view> host() const;
  std::optional<std::string_view> port() const;
  std::optional<uint16_t> portNumber() const;

  bool empty() const { return text_.empty(); }
  // Has a scheme: resolving it against anything changes no more than its dot segments.
  bool isAbsolute() const { return scheme_.present; }

  // `reference` resolved against this as base (RFC 3986 section 5.2, strict).
  std::string resolve(std::string_view reference) const;
  static FastString resolve(std::string_view reference, std::string_view base);

  // The text with everything that RFC 3986 does not allow at its place percent-encoded, and nothing
  // else changed: what is encoded stays as it is, "%" is encoded only where two hexadecimal digits
  // do not follow, "[" and "]" outside an IP literal and a second "#" are encoded. Encoding twice
  // gives the same.
  std::string encoded() const;
  static FastString encode(std::string_view text) { return FastString(URI(text).encoded()); }

  // "%" and two hexadecimal digits become their byte; any other "%" stays.
  static std::string percentDecode(std::string_view text);

  bool operator==(const URI& other) const { return text_ == other.text_; }
  auto operator<=>(const URI& other) const { return text_ <=> other.text_; }

 private:
  struct Part {
    size_t begin = 0;
    size_t size = 0;
    bool present = false;
  };
  std::optional<std::string_view> part(const Part& p) const {
    if (!p.present) return std::nullopt;
    return std::string_view(text_).substr(p.begin, p.size);
  }

  std::string text_;
  Part scheme_, authority_, path_, query_, fragment_;
};

}  // namespace qnc
