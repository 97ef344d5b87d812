#include "platform/URLResponse.h"

#include <algorithm>
#include <array>
#include <utility>

namespace platform {
namespace {

struct Phrase {
  int status;
  const char* text;
};

// RFC 9110 section 15 and the registered codes of RFC 2295, 2774, 4918, 5842, 6585, 7725, 8297 and
// 8470, by number.
constexpr auto kPhrases = std::to_array<Phrase>({
    {100, "continue"},
    {101, "switching protocols"},
    {102, "processing"},
    {103, "early hints"},
    {200, "ok"},
    {201, "created"},
    {202, "accepted"},
    {203, "non-authoritative information"},
    {204, "no content"},
    {205, "reset content"},
    {206, "partial content"},
    {207, "multi-status"},
    {208, "already reported"},
    {226, "im used"},
    {300, "multiple choices"},
    {301, "moved permanently"},
    {302, "found"},
    {303, "see other"},
    {304, "not modified"},
    {305, "use proxy"},
    {307, "temporary redirect"},
    {308, "permanent redirect"},
    {400, "bad request"},
    {401, "unauthorized"},
    {402, "payment required"},
    {403, "forbidden"},
    {404, "not found"},
    {405, "method not allowed"},
    {406, "not acceptable"},
    {407, "proxy authentication required"},
    {408, "request timeout"},
    {409, "conflict"},
    {410, "gone"},
    {411, "length required"},
    {412, "precondition failed"},
    {413, "content too large"},
    {414, "uri too long"},
    {415, "unsupported media type"},
    {416, "range not satisfiable"},
    {417, "expectation failed"},
    {421, "misdirected request"},
    {422, "unprocessable content"},
    {423, "locked"},
    {424, "failed dependency"},
    {425, "too early"},
    {426, "upgrade required"},
    {428, "precondition required"},
    {429, "too many requests"},
    {431, "request header fields too large"},
    {451, "unavailable for legal reasons"},
    {500, "internal server error"},
    {501, "not implemented"},
    {502, "bad gateway"},
    {503, "service unavailable"},
    {504, "gateway timeout"},
    {505, "http version not supported"},
    {506, "variant also negotiates"},
    {507, "insufficient storage"},
    {508, "loop detected"},
    {510, "not extended"},
    {511, "network authentication required"},
});

}  // namespace

URLResponse::URLResponse(URLPtr url, int64_t expectedContentLength)
    : url_(std::move(url)), expectedContentLength_(expectedContentLength) {}

URLResponse::~URLResponse() = default;

HTTPURLResponse::HTTPURLResponse(URLPtr url, int statusCode, HTTPHeaders headers,
                                 int64_t expectedContentLength)
    : URLResponse(std::move(url), expectedContentLength),
      statusCode_(statusCode),
      headers_(std::move(headers)) {}

HTTPURLResponse::~HTTPURLResponse() = default;

std::optional<std::string> HTTPURLResponse::localizedStringForStatusCode(int statusCode) {
  const auto found =
      std::lower_bound(kPhrases.begin(), kPhrases.end(), statusCode,
                       [](const Phrase& phrase, int status) { return phrase.status < status; });
  if (found == kPhrases.end() || found->status != statusCode) return std::nullopt;
  return found->text;
}

}  // namespace platform
