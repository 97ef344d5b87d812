#include "platform/URL.h"

#include <gtest/gtest.h>

#include "platform/FileManager.h"

namespace platform {
namespace {

std::string textOf(const URLPtr& url) {
  return url ? url->absoluteString() : "null";
}

TEST(URL, EncodesOnlyWhatMayNotStand) {
  const struct {
    const char* text;
    const char* expected;
  } rows[] = {
      {"http://h/a/b.mpd", "http://h/a/b.mpd"},
      // kept as a manifest wrote them
      {"http://h/%7Euser/%e4;v=1,2!$&'()*+=:@", "http://h/%7Euser/%e4;v=1,2!$&'()*+=:@"},
      {"http://H/A?x=/?&y=[0", "http://H/A?x=/?&y=%5B0"},
      {"HTTP://h:/", "HTTP://h:/"},
      {"../x//y/./z", "../x//y/./z"},
      {"http://[2001:db8::1]:8080/x", "http://[2001:db8::1]:8080/x"},
      // never allowed
      {"http://h/a b|c{d}e\"f<g>h\\i^j`k", "http://h/a%20b%7Cc%7Bd%7De%22f%3Cg%3Eh%5Ci%5Ej%60k"},
      {"http://h/100%", "http://h/100%25"},
      {"http://h/%zz%4", "http://h/%25zz%254"},
      {"http://h/\xC3\xA4\xFF", "http://h/%C3%A4%FF"},
      {"http://h/a[1]", "http://h/a%5B1%5D"},
      {"http://h/a#b#c", "http://h/a#b%23c"},
      // no reference at all
      {"", "null"},
      {"http://h:80x/", "null"},
      {"http://h:65536/", "null"},
      {"http://[::1/", "null"},
      {"http://[::1]x/", "null"},
      {"http://h/\n", "null"},
      {"http://h/a\x7F", "null"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const auto url = URL::URLWithString(row.text);
    EXPECT_EQ(textOf(url), row.expected);
    if (url) {
      EXPECT_EQ(textOf(URL::URLWithString(url->absoluteString())), row.expected);
    }
  }
  EXPECT_EQ(URL::URLWithString(std::string_view("http://h/a\0b", 12)), nullptr);
}

TEST(URL, ResolvesReferencesAgainstABase) {
  const struct {
    const char* base;  // null: none
    const char* reference;
    const char* expected;
  } rows[] = {
      {"http://h/p/m.mpd", "seg/1.m4s", "http://h/p/seg/1.m4s"},
      {"http://h/p/m.mpd?q", "?x", "http://h/p/m.mpd?x"},
      {"http://h/p/m.mpd?q#f", "", "http://h/p/m.mpd?q"},
      {"http://h/p/m.mpd", "../../x", "http://h/x"},
      {"http://h/p/m.mpd", "//other/x", "http://other/x"},
      {"http://h/p/m.mpd", "https://o/x", "https://o/x"},
      {"http://h", "x y", "http://h/x%20y"},
      {"file:///m/a.mpd", "b.mp4", "file:///m/b.mp4"},
      {nullptr, "seg/1.m4s", "seg/1.m4s"},
      {nullptr, "", "null"},
      {"http://h/p", "http://h:x/", "null"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reference);
    const auto base = row.base ? URL::URLWithString(row.base) : nullptr;
    EXPECT_EQ(textOf(URL::URLWithString(row.reference, base)), row.expected);
  }
}

std::string componentsOf(const URL& url) {
  const auto shown = [](const std::optional<std::string>& part) { return part.value_or("-"); };
  const auto port = url.port();
  return shown(url.scheme()) + " " + shown(url.user()) + " " + shown(url.host()) + " " +
         (port ? std::to_string(*port) : "-") + " " + url.path() + " " + shown(url.query()) + " " +
         shown(url.fragment());
}

TEST(URL, TakesItsTextApart) {
  const struct {
    const char* text;
    const char* components;
    const char* origin;
    bool isHTTP;
  } rows[] = {
      {"HTTPS://u:p@Example.ORG/A%20b?q=1#f", "HTTPS u Example.ORG - /A%20b q=1 f",
       "https://example.org:443", true},
      {"http://h:8080", "http - h 8080  - -", "http://h:8080", true},
      {"http://h:/x?", "http - h - /x  -", "http://h:80", true},
      {"http://[FE80::1]:81/", "http - FE80::1 81 / - -", "http://[fe80::1]:81", true},
      {"http://a@b@c/", "http a%40b c - / - -", "http://c:80", true},
      {"http:/x", "http - - - /x - -", "http://:80", false},
      {"ftp://h/x", "ftp - h - /x - -", "ftp://h", false},
      {"file:///a%20b", "file - - - /a%20b - -", "file://", false},
      {"seg/1?x#", "- - - - seg/1 x ", "://", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const auto url = URL::URLWithString(row.text);
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(componentsOf(*url), row.components);
    EXPECT_EQ(url->origin(), row.origin);
    EXPECT_EQ(url->isHTTP(), row.isHTTP);
  }
}

TEST(URL, CarriesFilePathsThereAndBack) {
  for (const char* path :
       {"/", "/a b/c%20d#e?f", "/\xC3\xA4;x:y@z/[1]", "//double", "/new\nline"}) {
    SCOPED_TRACE(path);
    const auto url = URL::fileURLWithPath(path);
    EXPECT_EQ(url->filePath(), path);
    EXPECT_FALSE(url->query() || url->fragment());
  }
  EXPECT_EQ(URL::fileURLWithPath("/a b#c")->absoluteString(), "file:///a%20b%23c");
  EXPECT_TRUE(URL::fileURLWithPath("x")->filePath()->ends_with("/x"));

  const struct {
    const char* text;
    std::optional<std::string> path;
  } rows[] = {
      {"FILE://localhost/x", "/x"}, {"file:/x", "/x"},        {"file://server/x", std::nullopt},
      {"http://h/x", std::nullopt}, {"file:x", std::nullopt}, {"file:///a%00b", std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(URL::URLWithString(row.text)->filePath(), row.path);
  }
}

}  // namespace
}  // namespace platform
