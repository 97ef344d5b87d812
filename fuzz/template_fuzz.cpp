// Input: number, bandwidth and time as 16 raw bytes, then template, representation id and base URL
// as lines. The compiled template gives what replacing the tokens one by one gives, the same
// refusals included, and resolving it beforehand what resolving each URL gives.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "mpl/Exception.h"
#include "mpl/ReferenceURI.h"
#include "mpl/dash/TemplateURI.h"

namespace {

constexpr std::string_view kTooLong = "Template URI too long";

struct Values {
  int32_t number = 0;
  int32_t bandwidth = 0;
  int64_t time = 0;
};

bool isWidth(const std::string& format) {
  if (format.size() < 4 || format.compare(0, 2, "%0") != 0 || format.back() != 'd') return false;
  const std::string digits = format.substr(2, format.size() - 3);
  if (digits.find_first_not_of("0123456789") != std::string::npos) return false;
  const size_t significant = digits.find_first_not_of('0');
  return significant == std::string::npos || digits.size() - significant <= 4
             ? std::atoi(digits.c_str()) <= 1000
             : false;
}

std::string printed(std::string format, int64_t value) {
  format.insert(format.size() - 1, "ll");
  std::string out(1100, '\0');
  out.resize(static_cast<size_t>(
      std::snprintf(out.data(), out.size(), format.c_str(), static_cast<long long>(value))));
  return out;
}

// The URL, or "!" and the message.
std::string replaceTokens(std::string text, const std::string& id, const Values& values) {
  size_t from = 0;
  for (;;) {
    const size_t open = text.find('$', from);
    if (open == std::string::npos) return text;
    const size_t close = text.find('$', open + 1);
    if (close == std::string::npos) return "!Mismatching $-tokens in template URI";
    const std::string token = text.substr(open, close - open + 1);
    std::string name = token.substr(1, token.size() - 2);
    std::string format = "%01d";
    const size_t percent = name.find('%');
    if (percent != std::string::npos) {
      format = name.substr(percent);
      if (!isWidth(format)) return "!Invalid template format: " + format;
      name.resize(percent);
    }
    std::string value;
    if (token == "$$") {
      value = "$";
    } else if (name == "RepresentationID" && percent == std::string::npos) {
      value = id;
    } else if (name == "Number") {
      value = printed(format, values.number);
    } else if (name == "Bandwidth") {
      value = printed(format, values.bandwidth);
    } else if (name == "Time") {
      value = printed(format, values.time);
    } else {
      return "!Invalid template: " + token;
    }
    text.replace(open, token.size(), value);
    from = open + value.size();
  }
}

std::string build(const std::string& text, const std::string& id, const Values& values) {
  try {
    return mpl::dash::TemplateURI::build(text, id, values.number, values.bandwidth, values.time)
        .str();
  } catch (const mpl::InvalidArgumentException& e) {
    return std::string("!") + e.what();
  }
}

std::string takeLine(std::string& rest) {
  const size_t end = rest.find('\n');
  std::string line = rest.substr(0, end);
  rest.erase(0, end == std::string::npos ? rest.size() : end + 1);
  return line;
}

void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Values values;
  constexpr size_t kHeader = 16;
  if (size < kHeader) return 0;
  std::memcpy(&values.number, data, 4);
  std::memcpy(&values.bandwidth, data + 4, 4);
  std::memcpy(&values.time, data + 8, 8);
  std::string rest(reinterpret_cast<const char*>(data) + kHeader, size - kHeader);
  if (rest.find('\0') != std::string::npos) return 0;  // no text of a manifest holds one
  const std::string text = takeLine(rest);
  const std::string id = takeLine(rest);
  const std::string base = takeLine(rest);

  const std::string url = build(text, id, values);
  if (url == std::string("!").append(kTooLong)) return 0;
  require(url == replaceTokens(text, id, values));
  try {
    const mpl::dash::TemplateURI compiled(text, id, values.bandwidth);
    require(url.size() <= compiled.maximumLength());
    const auto resolved = compiled.resolvedAgainst(base);
    if (!resolved) return 0;
    std::string once;
    resolved->append(once, values.number, values.time);
    require(once == mpl::ReferenceURI::resolve(url, base));
    require(once.size() <= resolved->maximumLength());
    std::string each;
    mpl::ReferenceResolver(base).resolve(url, each);
    require(each == once);
  } catch (const mpl::InvalidArgumentException&) {
    require(url.front() == '!');
  }
  return 0;
}
