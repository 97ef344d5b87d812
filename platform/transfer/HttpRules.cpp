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

// The response does not contradict the version that the stored bytes are of.
bool agrees(const std::string& validator, const HTTPHeaders& headers) {
  const bool isTag = isStrongEntityTag(validator);
  const auto* const value = headers.find(isTag ? "ETag" : "Last-Modified");
  return !value || trimmed(*value) == validator;
}

bool endsRight(const ByteRange& got, const ByteRange& asked, const std::optional<uint64_t>& total) {
  if (asked.last && *got.last == *asked.last) return true;
  if (asked.last && *got.last > *asked.last) return false;
  if (total) return *got.last + 1 == *total;
  return !asked.last;
}

Verdict judgePartial(const RangeAsked& asked, const HTTPHeaders& headers) {
  const Verdict refused = asked.offset > 0 ? Verdict::FromZero : Verdict::Bad;
  if (hasContentCoding(headers)) return refused;
  if (asked.hasOwnRange && !asked.own) return Verdict::StartOver;  // the application's to judge
  const auto* const value = headers.find("Content-Range");
  const auto content = value ? parseContentRange(*value) : std::nullopt;
  if (!content || !content->range) return refused;

  ByteRange wanted = asked.own.value_or(ByteRange{});
  const uint64_t start = wanted.first;
  wanted.first += asked.offset;
  const ByteRange& got = *content->range;
  if (got.first != wanted.first || !endsRight(got, wanted, content->total)) return refused;
  const auto length = contentLength(headers);
  if (length && static_cast<uint64_t>(*length) != *got.last - got.first + 1) return refused;
  if (asked.offset == 0) return Verdict::StartOver;

  if (asked.expected >= 0 && *got.last + 1 != start + static_cast<uint64_t>(asked.expected)) {
    return refused;
  }
  if (asked.total && content->total && *asked.total != *content->total) return refused;
  return agrees(asked.validator, headers) ? Verdict::Continue : refused;
}

Verdict judgeUnsatisfiable(const RangeAsked& asked, const HTTPHeaders& headers) {
  if (asked.offset == 0) return Verdict::StartOver;
  const auto* const value = headers.find("Content-Range");
  const auto content = value ? parseContentRange(*value) : std::nullopt;
  if (!content || content->range || !content->total) return Verdict::FromZero;
  const uint64_t end = asked.own.value_or(ByteRange{}).first + asked.offset;
  const bool whole = *content->total == end && agrees(asked.validator, headers) &&
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
  return date ? std::optional(std::max<int64_t>(0, *date - wallSeconds)) : std::nullopt;
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
  return value ? number<int64_t>(trimmed(*value)) : std::nullopt;
}

std::optional<uint64_t> completeLength(const HTTPURLResponse& response) {
  if (response.statusCode() == 206) {
    const auto* const value = response.allHeaderFields().find("Content-Range");
    const auto content = value ? parseContentRange(*value) : std::nullopt;
    return content ? content->total : std::nullopt;
  }
  const auto length = contentLength(response.allHeaderFields());
  if (!length || hasContentCoding(response.allHeaderFields())) return std::nullopt;
  return static_cast<uint64_t>(*length);
}

std::optional<std::string> RangeAsked::header(const std::optional<std::string>& ownHeader) const {
  if (offset == 0) return ownHeader;
  ByteRange range = own.value_or(ByteRange{});
  range.first += offset;
  return formatRange(range);
}

Verdict judgeResponse(const RangeAsked& asked, int status, const HTTPHeaders& headers) {
  if (status == 206) return judgePartial(asked, headers);
  if (status == 416) return judgeUnsatisfiable(asked, headers);
  return Verdict::StartOver;
}

}  // namespace platform
