#include <gtest/gtest.h>

#include "platform/URLRequest.h"
#include "platform/URLResponse.h"

namespace platform {
namespace {

std::string render(const HTTPHeaders& headers) {
  std::string text;
  for (const auto& [name, value] : headers.fields())
    text += name + "=" + value + ";";
  return text;
}

TEST(HTTPHeaders, NamesCompareWithoutCaseAndKeepTheirPlace) {
  HTTPHeaders headers;
  headers.set("Range", "a");
  headers.set("X-One", "b");
  headers.set("RANGE", "c");
  EXPECT_EQ(render(headers), "Range=c;X-One=b;");
  EXPECT_EQ(headers.get("range"), "c");
  EXPECT_EQ(headers.get("Rang"), std::nullopt);
  headers.remove("rAnGe");
  EXPECT_EQ(render(headers), "X-One=b;");
}

// A loop over fields() of a temporary keeps them, not the temporary, alive.
TEST(HTTPHeaders, FieldsOfATemporaryOutliveIt) {
  const auto make = [] {
    HTTPHeaders headers;
    headers.set("Authorization", std::string(100, 'x'));
    return headers;
  };
  for (const auto& [name, value] : make().fields()) {
    EXPECT_EQ(name, "Authorization");
    EXPECT_EQ(value, std::string(100, 'x'));
  }
}

TEST(URLRequest, NoHeaderCanSplitARequest) {
  using namespace std::string_literals;
  const struct {
    std::string name;
    std::string value;
    bool accepted;
  } rows[] = {
      {"Authorization", "Bearer x y", true},
      {"X-!#$%&'*+.^_`|~9", "", true},
      {"X", "tab\tand \xE4", true},
      {"", "x", false},
      {"X Y", "x", false},
      {"X:", "x", false},
      {"X\r\nEvil", "x", false},
      {"X\0"s, "x", false},
      {"\xC3\xA4", "x", false},
      {"X", "a\r\nEvil: 1", false},
      {"X", "a\nb", false},
      {"X", "a\rb", false},
      {"X", "a\0b"s, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.name + ": " + row.value));
    URLRequest request(nullptr);
    request.setValueForHTTPHeaderField(row.value, row.name);
    EXPECT_EQ(render(request.allHTTPHeaderFields()),
              row.accepted ? row.name + "=" + row.value + ";" : "");
  }
}

TEST(URLRequest, NoMethodCanSplitARequest) {
  const auto request = URLRequest::requestWithURL(nullptr);
  EXPECT_EQ(request->HTTPMethod(), "GET");
  request->setHTTPMethod("HEAD");
  for (const char* bad : {"", "GET /evil HTTP/1.1\r\nX", "G E T"})
    request->setHTTPMethod(bad);
  EXPECT_EQ(request->HTTPMethod(), "HEAD");
}

TEST(HTTPURLResponse, KnowsTheWordsOfItsStatus) {
  const struct {
    int status;
    const char* text;
  } rows[] = {{100, "continue"},
              {200, "ok"},
              {206, "partial content"},
              {404, "not found"},
              {416, "range not satisfiable"},
              {503, "service unavailable"},
              {511, "network authentication required"}};
  for (const auto& row : rows) {
    EXPECT_EQ(HTTPURLResponse::localizedStringForStatusCode(row.status), row.text);
  }
  for (const int status : {-1, 0, 99, 299, 418, 512, 999}) {
    EXPECT_EQ(HTTPURLResponse::localizedStringForStatusCode(status), std::nullopt) << status;
  }
}

}  // namespace
}  // namespace platform
