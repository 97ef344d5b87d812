#include "platform/transfer/HttpRules.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include <curl/curl.h>

namespace platform {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalFolded(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lower(x) == lower(y); });
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

template <class Number>
std::optional<Number> number(std::string_view text) {
  Number value{};
  if (text.empty() || text[0] == '-' || text[0] == '+') return std::nullopt;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Strips "bytes" and what separates it from the rest.
std::optional<std::string_view> afterUnit(std::string_view value, char separator) {
  value = trimmed(value);
  if (value.size() < 6 || !equalFolded(value.substr(0, 5), "bytes") || value[5] != separator) {
    return std::nullopt;
  }
  return trimmed(value.substr(6));
}

std::optional<ByteRange> parseSpan(std::string_view text, bool open) {
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const auto first = number<uint64_t>(trimmed(text.substr(0, dash)));
  const auto lastText = trimmed(text.substr(dash + 1));
  if (!first) return std::nullopt;
  if (lastText.empty() && open) return ByteRange{*first, std::nullopt};
  const auto last = number<uint64_t>(lastText);
  if (!last || *last < *first) return std::nullopt;
  return ByteRange{*first, last};
}

bool isStrongEntityTag(std::string_view tag) {
  return tag.size() >= 2 && tag.front() == '"' && tag.back() == '"';
}

std::optional<ContentRange> contentRange(const HTTPHeaders& headers) {
  const auto* const value = headers.find("Content-Range");
  return value ? parseContentRange(*value) : std::nullopt;
}

bool contradicts(const HTTPHeaders& headers, const char* field, const std::string& validator) {
  const auto* const value = headers.find(field);
  return value && trimmed(*value) != validator;
}

// A response to If-Range says itself that its bytes are of the version that was named: it repeats
// the entity tag (RFC 9110 section 15.3.7). A Last-Modified may be left out; then the complete
// length has to be the known one.
bool isOfVersion(const RangeAsked& asked, const HTTPHeaders& headers, const ContentRange& content) {
  if (asked.validator.empty()) return false;
  if (isStrongEntityTag(asked.validator)) {
    return headers.find("ETag") && !contradicts(headers, "ETag", asked.validator);
  }
  // An entity tag where there was none is of another version, or of another server.
  if (headers.find("ETag")) return false;
  if (headers.find("Last-Modified")) {
    return !contradicts(headers, "Last-Modified", asked.validator);
  }
  return asked.total && asked.total == content.total;
}

// A 416 has no bytes and need not name a version.
bool mayBeOfVersion(const RangeAsked& asked, const HTTPHeaders& headers) {
  const char* const field = isStrongEntityTag(asked.validator) ? "ETag" : "Last-Modified";
  return asked.validator.empty() || !contradicts(headers, field, asked.validator);
}

// The position behind the last byte that is wanted. Without a complete length it is the most that
// is wanted of a representation that may end before.
std::optional<uint64_t> endWanted(const RangeAsked& asked, const std::optional<uint64_t>& total) {
  if (asked.expected >= 0) return asked.start() + static_cast<uint64_t>(asked.expected);
  if (!asked.own || !asked.own->last) return total;
  const uint64_t end = *asked.own->last + 1;
  return total ? std::min(*total, end) : end;
}

// Where the complete length is unknown a part may end early: the rest is asked for then.
bool endsRight(const RangeAsked& asked, const ContentRange& content) {
  const auto end = endWanted(asked, content.total);
  const uint64_t got = *content.range->last + 1;
  return !end || got == *end || (!content.total && got < *end);
}

Verdict judgePartial(const RangeAsked& asked, const HTTPHeaders& headers, Verdict refused) {
  if (hasContentCoding(headers)) return refused;
  if (asked.hasOwnRange && !asked.own) return Verdict::StartOver;  // the application's to judge
  const auto content = contentRange(headers);
  if (!content || !content->range) return refused;

  const ByteRange& got = *content->range;
  if (got.first != asked.start() + asked.offset || !endsRight(asked, *content)) return refused;
  const auto length = contentLength(headers);
  if (length && static_cast<uint64_t>(*length) != *got.last - got.first + 1) return refused;
  if (asked.offset == 0) return Verdict::StartOver;

  if (asked.total && content->total && *asked.total != *content->total) return refused;
  return isOfVersion(asked, headers, *content) ? Verdict::Continue : refused;
}

Verdict judgeUnsatisfiable(const RangeAsked& asked, const HTTPHeaders& headers) {
  if (asked.offset == 0) return Verdict::StartOver;
  if (!mayBeOfVersion(asked, headers)) return Verdict::FromZero;
  if (asked.endUnknown && !headers.find("Content-Range")) return Verdict::Whole;
  const auto content = contentRange(headers);
  if (!content || content->range || !content->total) return Verdict::FromZero;
  const bool whole = *content->total == asked.start() + asked.offset &&
                     (!asked.total || *asked.total == *content->total);
  return whole ? Verdict::Whole : Verdict::FromZero;
}

}  // namespace

std::optional<ByteRange> parseRange(std::string_view value) {
  const auto rest = afterUnit(value, '=');
  return rest ? parseSpan(*rest, true) : std::nullopt;
}

std::string formatRange(const ByteRange& range) {
  return "bytes=" + std::to_string(range.first) + "-" +
         (range.last ? std::to_string(*range.last) : std::string());
}

std::optional<ContentRange> parseContentRange(std::string_view value) {
  const auto rest = afterUnit(value, ' ');
  if (!rest) return std::nullopt;
  const size_t slash = rest->find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const auto spanText = trimmed(rest->substr(0, slash));
  const auto totalText = trimmed(rest->substr(slash + 1));

  ContentRange result;
  if (totalText != "*") {
    result.total = number<uint64_t>(totalText);
    if (!result.total) return std::nullopt;
  }
  if (spanText == "*") return result.total ? std::optional(result) : std::nullopt;
  result.range = parseSpan(spanText, false);
  if (!result.range || *result.range->last == std::numeric_limits<uint64_t>::max()) {
    return std::nullopt;
  }
  if (result.total && *result.range->last >= *result.total) return std::nullopt;
  return result;
}

std::optional<int64_t> parseHTTPDate(std::string_view value) {
  const time_t time = curl_getdate(std::string(value).c_str(), nullptr);
  return time < 0 ? std::nullopt : std::optional<int64_t>(time);
}

std::string strongValidator(const HTTPHeaders& headers) {
  if (const auto* const tag = headers.find("ETag")) {
    const auto text = trimmed(*tag);
    // A weak tag says that a second version within the second is possible.
    return isStrongEntityTag(text) ? std::string(text) : std::string();
  }
  const auto* const modified = headers.find("Last-Modified");
  const auto* const date = headers.find("Date");
  if (!modified || !date) return {};
  const auto modifiedTime = parseHTTPDate(*modified);
  const auto dateTime = parseHTTPDate(*date);
  const bool strong = modifiedTime && dateTime && *dateTime - *modifiedTime >= 1;
  return strong ? std::string(trimmed(*modified)) : std::string();
}

std::optional<int64_t> retryAfterSeconds(const HTTPHeaders& headers, int64_t wallSeconds) {
  const auto* const value = headers.find("Retry-After");
  if (!value) return std::nullopt;
  if (const auto seconds = number<int64_t>(trimmed(*value))) return seconds;
  const auto date = parseHTTPDate(*value);
  if (!date) return std::nullopt;
  // The server's clock need not be ours.
  const auto* const sent = headers.find("Date");
  const auto sentTime = sent ? parseHTTPDate(*sent) : std::nullopt;
  return std::max<int64_t>(0, *date - sentTime.value_or(wallSeconds));
}

bool isRetriedStatus(int status) {
  return status == 429 || status == 502 || status == 503 || status == 504;
}

bool isRedirectStatus(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool hasContentCoding(const HTTPHeaders& headers) {
  const auto* const coding = headers.find("Content-Encoding");
  return coding && !trimmed(*coding).empty() && !equalFolded(trimmed(*coding), "identity");
}

std::optional<int64_t> contentLength(const HTTPHeaders& headers) {
  // Without regard to a Transfer-Encoding, which makes it meaningless (RFC 9112 section 6.3).
  if (headers.find("Transfer-Encoding")) return std::nullopt;
  const auto* const value = headers.find("Content-Length");
  if (!value) return std::nullopt;
  std::string_view list = *value;
  const auto length = number<int64_t>(trimmed(list.substr(0, list.find(','))));
  // The same number may be repeated, in one field or in several.
  for (size_t comma = list.find(','); comma != list.npos; comma = list.find(',')) {
    list.remove_prefix(comma + 1);
    if (number<int64_t>(trimmed(list.substr(0, list.find(',')))) != length) return std::nullopt;
  }
  return length;
}

bool hasUnclearLength(const HTTPHeaders& headers) {
  return headers.find("Content-Length") && !headers.find("Transfer-Encoding") &&
         !contentLength(headers);
}

std::optional<uint64_t> completeLength(const HTTPURLResponse& response) {
  if (response.statusCode() == 206) {
    const auto content = contentRange(response.allHeaderFields());
    return content ? content->total : std::nullopt;
  }
  const auto length = contentLength(response.allHeaderFields());
  if (!length || hasContentCoding(response.allHeaderFields())) return std::nullopt;
  return static_cast<uint64_t>(*length);
}

std::optional<std::string> RangeAsked::header(const std::optional<std::string>& ownHeader) const {
  if (offset == 0) return ownHeader;
  return formatRange({start() + offset, own ? own->last : std::nullopt});
}

Verdict judgeResponse(const RangeAsked& asked, int status, const HTTPHeaders& headers) {
  // What cannot be named by If-Range is not to be had from byte 0 in another way either.
  const bool canStartOver = asked.offset > 0 && !asked.validator.empty();
  const Verdict refused = canStartOver ? Verdict::FromZero : Verdict::Bad;
  if ((status == 200 || status == 206) && hasUnclearLength(headers)) return refused;
  if (status == 206) return judgePartial(asked, headers, refused);
  if (status == 416) return judgeUnsatisfiable(asked, headers);
  return Verdict::StartOver;
}

bool bringsTheRest(const RangeAsked& asked, const HTTPHeaders& headers) {
  const auto content = contentRange(headers);
  if ((asked.hasOwnRange && !asked.own) || !content || !content->range || content->total) {
    return true;
  }
  return endWanted(asked, std::nullopt) == *content->range->last + 1;
}

}  // namespace platform
