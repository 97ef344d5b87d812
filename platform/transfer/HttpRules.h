#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/URLRequest.h"
#include "platform/URLResponse.h"

// What RFC 9110 says about ranges, validators, redirects and retries, as pure functions.
namespace platform {

struct ByteRange {
  uint64_t first = 0;
  std::optional<uint64_t> last;  // included; absent: to the end

  bool operator==(const ByteRange&) const = default;
};

// A "Range" value of one range with a first position ("bytes=5-9", "bytes=5-"); nullopt for any
// other (suffix, several ranges, another unit).
std::optional<ByteRange> parseRange(std::string_view value);
std::string formatRange(const ByteRange& range);

struct ContentRange {
  std::optional<ByteRange> range;  // absent in the form "bytes */1234" of a 416
  std::optional<uint64_t> total;   // absent when "*"

  bool operator==(const ContentRange&) const = default;
};
std::optional<ContentRange> parseContentRange(std::string_view value);

// Seconds since 1970.
std::optional<int64_t> parseHTTPDate(std::string_view value);

// A validator that is good for If-Range: a strong entity tag (section 8.8.3), else a Last-Modified
// that the Date proves to be strong (section 8.8.2.2); empty when there is none.
std::string strongValidator(const HTTPHeaders& headers);

// Seconds from now, at least 0, of Retry-After in either form (section 10.2.3). A date counts from
// the response's own Date, without one from `wallSeconds`.
std::optional<int64_t> retryAfterSeconds(const HTTPHeaders& headers, int64_t wallSeconds);

bool isRetriedStatus(int status);  // 429, 502, 503, 504
bool isRedirectStatus(int status);

// A content coding other than identity.
bool hasContentCoding(const HTTPHeaders& headers);
// Content-Length, nullopt when absent or not one number; one number may be repeated.
std::optional<int64_t> contentLength(const HTTPHeaders& headers);
// A Content-Length that is not one number: nobody can say where the body ends (RFC 9112 section
// 6.3).
bool hasUnclearLength(const HTTPHeaders& headers);
// Length of the whole resource that a response told, of whatever part it was.
std::optional<uint64_t> completeLength(const HTTPURLResponse& response);

// What a request asked for: the Range of the application's own, moved on by what is there already.
struct RangeAsked {
  bool hasOwnRange = false;
  std::optional<ByteRange> own;  // when it can be read
  uint64_t offset = 0;           // bytes that are there; 0: from the start
  std::string validator;         // of the bytes that are there; empty: only their end is asked for
  int64_t expected = -1;         // bytes of the task in all, when an earlier response told
  std::optional<uint64_t> total;
  // The bytes that are there end with a part of a representation of unknown length: maybe at its
  // end.
  bool endUnknown = false;

  // Position of the first byte of the task in the representation.
  uint64_t start() const { return own ? own->first : 0; }
  // The Range value to send, nullopt when none is needed.
  std::optional<std::string> header(const std::optional<std::string>& ownHeader) const;
};

enum class Verdict {
  Continue,   // the body goes on at `offset`
  StartOver,  // a response of its own: counts from 0
  Whole,      // nothing is missing, the body is no content
  FromZero,   // not usable; to be asked for again from byte 0
  Bad,        // not usable, and asking again from byte 0 would not help
};

// Statuses that are retried are not looked at here.
Verdict judgeResponse(const RangeAsked& asked, int status, const HTTPHeaders& headers);
// False for a usable 206 behind whose last byte there may be more of what was asked for, because
// its complete length is "*".
bool bringsTheRest(const RangeAsked& asked, const HTTPHeaders& headers);

}  // namespace platform
