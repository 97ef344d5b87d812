// Two texts, parted by the first line break: a base and a reference.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "qnc/qncUri.h"

using qnc::URI;

namespace {

void demand(bool holds, const char* what, const std::string& a, const std::string& b) {
  if (holds) return;
  std::fprintf(stderr, "%s\n<%s>\n<%s>\n", what, a.c_str(), b.c_str());
  std::abort();
}

std::string recomposed(const URI& uri) {
  std::string text;
  if (uri.scheme()) text.append(*uri.scheme()).append(":");
  if (uri.authority()) text.append("//").append(*uri.authority());
  text.append(uri.path());
  if (uri.query()) text.append("?").append(*uri.query());
  if (uri.fragment()) text.append("#").append(*uri.fragment());
  return text;
}

bool hasDotSegment(std::string_view path) {
  const std::string framed = "/" + std::string(path) + "/";
  return framed.find("/./") != std::string::npos || framed.find("/../") != std::string::npos;
}

void checkParsing(const URI& uri) {
  demand(recomposed(uri) == uri.str(), "components make up the text", uri.str(), recomposed(uri));
  (void)uri.userInfo();
  (void)uri.portNumber();
  const URI encoded(uri.encoded());
  demand(encoded.encoded() == encoded.str(), "encoding is idempotent", encoded.str(), uri.str());
  demand(encoded.scheme() == uri.scheme() && encoded.host().has_value() == uri.host().has_value() &&
             encoded.port().has_value() == uri.port().has_value() &&
             encoded.userInfo().has_value() == uri.userInfo().has_value() &&
             encoded.query().has_value() == uri.query().has_value() &&
             encoded.fragment().has_value() == uri.fragment().has_value(),
         "encoding keeps the structure", encoded.str(), uri.str());
  demand(URI::percentDecode(encoded.path()) == URI::percentDecode(uri.path()),
         "encoding keeps what the path means", encoded.str(), uri.str());
  for (const char c : encoded.str()) {
    demand(
        c > 0x20 && c < 0x7F && std::string_view("\"<>\\^`{|}").find(c) == std::string_view::npos,
        "encoded", encoded.str(), uri.str());
  }
}

void checkResolution(const URI& base, const URI& reference) {
  const URI result(base.resolve(reference.str()));
  demand(!base.isAbsolute() || result.isAbsolute(), "absolute base, absolute result", base.str(),
         result.str());
  demand(result.fragment() == reference.fragment(), "the fragment is the reference's",
         reference.str(), result.str());
  const bool guarded = result.path().starts_with("./") || result.path().starts_with("/.//");
  if (!reference.path().empty() && result.isAbsolute() && !guarded) {
    demand(!hasDotSegment(result.path()), "no dot segments", reference.str(), result.str());
  }
  if (result.isAbsolute() && !reference.path().empty()) {
    demand(URI("x://y/z").resolve(result.str()) == result.str(), "an absolute result stands",
           base.str(), result.str());
  }
  if (!reference.path().empty()) {
    const std::string again = URI("").resolve(result.str());
    demand(again == result.str(), "resolution is idempotent", again, result.str());
  }
}

// Going through a relative base or past it ends at the same place.
void checkRelativeSteps(const URI& base, const URI& reference) {
  const URI step(URI("").resolve(base.str()));
  if (step.isAbsolute() || step.authority()) return;
  const URI root("http://h/p/q/m.mpd");
  const std::string direct = URI(root.resolve(step.str())).resolve(reference.str());
  const std::string through = root.resolve(step.resolve(reference.str()));
  demand(direct == through, "relative steps", direct, through);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const size_t line = text.find('\n');
  const URI base(text.substr(0, line));
  const URI reference(line == text.npos ? std::string_view() : text.substr(line + 1));
  checkParsing(base);
  checkParsing(reference);
  checkResolution(base, reference);
  checkRelativeSteps(base, reference);
  return 0;
}
