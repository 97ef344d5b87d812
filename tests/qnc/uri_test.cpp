#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qnc/qncUri.h"

namespace {

using qnc::URI;

struct ResolveRow {
  const char* base;
  const char* reference;
  const char* expected;
};

void expectResolved(const std::vector<ResolveRow>& rows) {
  for (const ResolveRow& row : rows) {
    SCOPED_TRACE(std::string("\"") + row.reference + "\" against \"" + row.base + "\"");
    EXPECT_EQ(URI(row.base).resolve(row.reference), row.expected);
    EXPECT_EQ(URI::resolve(row.reference, row.base), row.expected);
  }
}

TEST(Uri, ResolvesTheExamplesOfTheRFC) {
  const char* base = "http://a/b/c/d;p?q";
  expectResolved({
      // RFC 3986 section 5.4.1, normal examples
      {base, "g:h", "g:h"},
      {base, "g", "http://a/b/c/g"},
      {base, "./g", "http://a/b/c/g"},
      {base, "g/", "http://a/b/c/g/"},
      {base, "/g", "http://a/g"},
      {base, "//g", "http://g"},
      {base, "?y", "http://a/b/c/d;p?y"},
      {base, "g?y", "http://a/b/c/g?y"},
      {base, "#s", "http://a/b/c/d;p?q#s"},
      {base, "g#s", "http://a/b/c/g#s"},
      {base, "g?y#s", "http://a/b/c/g?y#s"},
      {base, ";x", "http://a/b/c/;x"},
      {base, "g;x", "http://a/b/c/g;x"},
      {base, "g;x?y#s", "http://a/b/c/g;x?y#s"},
      {base, "", "http://a/b/c/d;p?q"},
      {base, ".", "http://a/b/c/"},
      {base, "./", "http://a/b/c/"},
      {base, "..", "http://a/b/"},
      {base, "../", "http://a/b/"},
      {base, "../g", "http://a/b/g"},
      {base, "../..", "http://a/"},
      {base, "../../", "http://a/"},
      {base, "../../g", "http://a/g"},
      // section 5.4.2, abnormal examples
      {base, "../../../g", "http://a/g"},
      {base, "../../../../g", "http://a/g"},
      {base, "/./g", "http://a/g"},
      {base, "/../g", "http://a/g"},
      {base, "g.", "http://a/b/c/g."},
      {base, ".g", "http://a/b/c/.g"},
      {base, "g..", "http://a/b/c/g.."},
      {base, "..g", "http://a/b/c/..g"},
      {base, "./../g", "http://a/b/g"},
      {base, "./g/.", "http://a/b/c/g/"},
      {base, "g/./h", "http://a/b/c/g/h"},
      {base, "g/../h", "http://a/b/c/h"},
      {base, "g;x=1/./y", "http://a/b/c/g;x=1/y"},
      {base, "g;x=1/../y", "http://a/b/c/y"},
      {base, "g?y/./x", "http://a/b/c/g?y/./x"},
      {base, "g?y/../x", "http://a/b/c/g?y/../x"},
      {base, "g#s/./x", "http://a/b/c/g#s/./x"},
      {base, "g#s/../x", "http://a/b/c/g#s/../x"},
      {base, "http:g", "http:g"},
  });
}

TEST(Uri, ResolvesAgainstBasesOfEveryKind) {
  expectResolved({
      // an authority with an empty path has a root
      {"http://a", "g", "http://a/g"},
      {"http://a?q", "g", "http://a/g"},
      {"http://a", "../g", "http://a/g"},
      // the fragment of a base never counts, its query only for an empty reference
      {"http://a/b?q#f", "", "http://a/b?q"},
      {"http://a/b?q/r/", "c", "http://a/c"},
      // no scheme, but an authority or a root
      {"//a/b/c", "../g", "//a/g"},
      {"/a/b/c", "../g", "/a/g"},
      {"/a/b/c", "../../../g", "/g"},
      // a scheme without authority
      {"file:///a/b/m.mpd", "c.mp4", "file:///a/b/c.mp4"},
      {"urn:x:y", "z", "urn:z"},
      // a path that would begin an authority is guarded
      {"x:/a", "/.//b", "x:/.//b"},
      {"/a", "/.//b", "/.//b"},
      {"http://h/a", "/.//b", "http://h//b"},
  });
}

TEST(Uri, ResolvesAgainstRelativeBases) {
  expectResolved({
      {"", "", ""},
      {"", "x", "x"},
      {"", "./x", "x"},
      {"", "../x", "../x"},
      {"", "../../x/../y", "../../y"},
      {"", "a/../../x", "../x"},
      {"", "?q", "?q"},
      {"", "/x/../y", "/y"},
      {"", "http://h/a/../b", "http://h/b"},
      {"d/", "x", "d/x"},
      {"d/", "../x", "x"},
      {"d/", "../../x", "../x"},
      {"d/e", "x", "d/x"},
      {"d/e/f", "../x", "d/x"},
      {"../d/", "../x", "../x"},
      {"../d/", "../../x", "../../x"},
      {"../", "x", "../x"},
      {"d/", "", "d/"},
      {"d/e?q", "", "d/e?q"},
      {"d/e?q", "?r", "d/e?r"},
      {"d/e?q", "#f", "d/e?q#f"},
      {"d/", "/x", "/x"},
      // a directory stays one, and the present one is never the empty text
      {"", "..", "../"},
      {"", ".", "./"},
      {"d/", "..", "./"},
      {"d/e/", "..", "d/"},
      {"d/", "x/..", "d/"},
      // empty segments count
      {"d//", "../x", "d/x"},
      {"", "a/..//b", ".//b"},
      {"", "..//b", "..//b"},
      // nothing turns into a scheme
      {"", "./a:b", "./a:b"},
      {"d/", "../a:b", "./a:b"},
      {"d/", "x/../a:b", "d/a:b"},
      // dots that are no dot segments
      {"d/", "...", "d/..."},
      {"d/", ".x/..y", "d/.x/..y"},
      {"d/", "%2e%2e/x", "d/%2e%2e/x"},
  });
}

TEST(Uri, KeepsWhatManifestsReallyHold) {
  expectResolved({
      {"http://h/d/m.mpd", "a b|c.mp4", "http://h/d/a b|c.mp4"},
      {"http://h/d/m.mpd", "{x}/%zz/$Number$.m4s", "http://h/d/{x}/%zz/$Number$.m4s"},
      {"http://h/d/m.mpd", "\xC3\xA4.mp4", "http://h/d/\xC3\xA4.mp4"},
      {"http://h/d m/x", "../y", "http://h/y"},
      {"http://h/s.ism/Manifest", "QualityLevels(3)/Fragments(video=0)",
       "http://h/s.ism/QualityLevels(3)/Fragments(video=0)"},
      {"http://h/d/m", "1a:b", "http://h/d/1a:b"},  // no scheme begins with a digit
      {"http://h/d/m", "a b:c", "http://h/d/a b:c"},
  });
}

TEST(Uri, EncodesOnlyWhatTheGrammarDoesNotAllow) {
  const struct {
    const char* text;
    const char* expected;
  } rows[] = {
      // untouched: reserved characters at their place, and what is encoded already
      {"http://u:p@h:80/a;b=c,d/(e)!$&'*+~_-.:@?q=/?:@#f/?", nullptr},
      {"http://h/%41%c3%A4%2F", nullptr},
      {"//h/p", nullptr},
      {"../x?y", nullptr},
      {"", nullptr},
      {"http://[2001:db8::1]:8080/", nullptr},
      // one rule each
      {"a b", "a%20b"},
      {"a|b{c}^`\\<>\"", "a%7Cb%7Bc%7D%5E%60%5C%3C%3E%22"},
      {"\xC3\xA4\x7F\x01", "%C3%A4%7F%01"},
      {"%zz%4%", "%25zz%254%25"},
      {"%4\xC3", "%254%C3"},
      {"http://h/[x]?[y]#[z]", "http://h/%5Bx%5D?%5By%5D#%5Bz%5D"},
      {"a#b#c", "a#b%23c"},
      {"http://u@v@h/", "http://u%40v@h/"},
      {"http://a:b:80/", "http://a%3Ab:80/"},
      {"http://h h/", "http://h%20h/"},
      {"http://[fe80::1%eth0]/", "http://[fe80::1%25eth0]/"},
      {"http://[x/y", "http://%5Bx/y"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const std::string once = URI(row.text).encoded();
    EXPECT_EQ(once, row.expected ? row.expected : row.text);
    EXPECT_EQ(URI(once).encoded(), once);
  }
}

TEST(Uri, SplitsItsComponents) {
  const struct {
    const char* text;
    const char* parts;  // scheme|user|host|port|path|query|fragment, "-" for absent
  } rows[] = {
      {"http://u:p@h:80/a/b?q#f", "http|u:p|h|80|/a/b|q|f"},
      {"http://h", "http|-|h|-||-|-"},
      {"http://h:?#", "http|-|h||||"},
      {"http://[::1]/x", "http|-|[::1]|-|/x|-|-"},
      {"http://[::1]:9/x", "http|-|[::1]|9|/x|-|-"},
      {"http://a@b@c:1", "http|a@b|c|1||-|-"},
      {"//h/x", "-|-|h|-|/x|-|-"},
      {"///x", "-|-||-|/x|-|-"},
      {"mailto:a@b", "mailto|-|-|-|a@b|-|-"},
      {"a/b:c", "-|-|-|-|a/b:c|-|-"},
      {"1:b", "-|-|-|-|1:b|-|-"},
      {":b", "-|-|-|-|:b|-|-"},
      {"x?a?b#c?d#e", "-|-|-|-|x|a?b|c?d#e"},
      {"", "-|-|-|-||-|-"},
  };
  const auto show = [](std::optional<std::string_view> part) {
    return std::string(part.value_or("-")) + "|";
  };
  for (const auto& row : rows) {
    const URI uri(row.text);
    std::string parts = show(uri.scheme()) + show(uri.userInfo()) + show(uri.host()) +
                        show(uri.port()) + show(uri.path()) + show(uri.query()) +
                        show(uri.fragment());
    parts.pop_back();
    EXPECT_EQ(parts, row.parts) << row.text;
  }
}

TEST(Uri, ReadsPortsOfSixteenBits) {
  EXPECT_EQ(URI("http://h:65535/").portNumber(), 65535);
  for (const char* text : {"http://h/", "http://h:/", "http://h:65536/", "http://h:8x/", "h:80"}) {
    EXPECT_EQ(URI(text).portNumber(), std::nullopt) << text;
  }
}

TEST(Uri, DecodesOnlyWholeEscapes) {
  EXPECT_EQ(URI::percentDecode("%41%2f%c3%A4%zz%4%"), "A/\xC3\xA4%zz%4%");
}

// What a relative base keeps is enough: going through it or past it ends at the same place.
TEST(Uri, RelativeStepsLeadWhereOneStepLeads) {
  const char* const bases[] = {"http://h/p/q/m.mpd", "/p/q/m.mpd", "file:///p/q/r/s"};
  const char* const steps[] = {"d/", "../d/e", "../", "./", "d/../../e/", "a//b", "../../x/y"};
  const char* const references[] = {"x", "../x", "../../x", ".", "..", "?q", "/r", "x/../y", "./"};
  for (const char* base : bases) {
    for (const char* step : steps) {
      for (const char* reference : references) {
        const std::string relative = URI(URI("").resolve(step)).resolve(reference);
        EXPECT_EQ(URI(base).resolve(relative), URI(URI(base).resolve(step)).resolve(reference))
            << reference << " against " << step << " against " << base;
      }
    }
  }
}

}  // namespace
