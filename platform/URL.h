#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace platform {

// A URL: its text and its components (RFC 3986 section 3). Immutable. The text is kept as written,
// except that characters which RFC 3986 does not allow are percent-encoded (a blank, "|", "{", a
// "%" without two hexadecimal digits, bytes above 0x7F); nothing else is changed, so that a server
// sees what the manifest said.
class QN_EXPORT URL {
 public:
  // Null when the text cannot be a URL reference (empty, a port that is no number of 16 bits, an IP
  // literal that is not closed, a control character).
  static std::shared_ptr<const URL> URLWithString(std::string_view text);
  // The reference, which may be empty, resolved against `base` (RFC 3986 section 5.2); a null base
  // gives the reference itself.
  static std::shared_ptr<const URL> URLWithString(std::string_view text,
                                                  const std::shared_ptr<const URL>& base);
  // "file://" and the percent-encoded path; a relative one begins at the current directory.
  static std::shared_ptr<const URL> fileURLWithPath(std::string_view path);
  // The text with the bytes that are not UTF-8 percent-encoded, and nothing else changed: the same
  // URL, in a form that JSON can hold.
  static std::string encodingInvalidBytes(std::string_view text);

  const std::string& absoluteString() const { return text_; }

  // Components as they stand in the text (still percent-encoded); nullopt when absent, `host` and
  // `port` also when empty. `scheme` and `host` keep their case; `host` of an IPv6 literal is
  // without brackets.
  std::optional<std::string> scheme() const;
  std::optional<std::string> user() const;
  std::optional<std::string> host() const;
  std::optional<uint16_t> port() const;
  std::string path() const;  // may be empty
  std::optional<std::string> query() const;
  std::optional<std::string> fragment() const;

  // True for the schemes that are transferred: "http" and "https", in any case, with a host.
  bool isHTTP() const;
  // The path of a file URL, percent-decoded; nullopt for any other.
  std::optional<std::string> filePath() const;

  // Scheme, host and port (defaults filled in), lower case: what "the same server" means.
  std::string origin() const;
  // Whether an http or https URL names its origin and nothing else (a path "/" is allowed).
  bool isOrigin() const;

  explicit URL(std::string text);

 private:
  std::string text_;
};

using URLPtr = std::shared_ptr<const URL>;

}  // namespace platform
