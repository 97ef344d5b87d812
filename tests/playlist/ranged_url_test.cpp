#include <gtest/gtest.h>

#include "playlist/QNInexactRanges.h"
#include "playlist/QNRangedURL.h"

namespace {

using Text = std::optional<std::string>;

TEST(RangedURL, WritesTheRangeHeaderOfTheTwoNumbersAsTheyStand) {
  struct Row {
    uint64_t offset;
    uint64_t length;
    Text header;
    bool inexact;  // asks for other bytes than `length` bytes from `offset`
  };
  const Row rows[] = {
      {0, 0, std::nullopt, false},
      {0, 499, "bytes=0-499", true},
      {1, 500, "bytes=1-500", false},
      {1000, 0, "bytes=1000-", false},
      {1000, 1999, "bytes=1000-1999", true},
      {1999, 1000, "bytes=1999-1000", true},
      {0, UINT64_MAX, "bytes=0-18446744073709551615", true},
      {UINT64_MAX, UINT64_MAX, "bytes=18446744073709551615-18446744073709551615", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.header.value_or("no header"));
    const auto url =
        QNRangedURL::rangedURLWithOffset(row.offset, row.length, "http://h/a", std::nullopt);
    EXPECT_EQ(url->hasRange(), row.header.has_value());
    EXPECT_EQ(url->prepareRequest()->valueForHTTPHeaderField("Range"), row.header);
    EXPECT_EQ(url->prepareRequest()->HTTPMethod(), "GET");
    EXPECT_EQ(isInexactRange(*url), row.inexact);

    const auto head = url->prepareHeadRequest();
    EXPECT_EQ(head->HTTPMethod(), "HEAD");
    EXPECT_EQ(head->valueForHTTPHeaderField("Accept-Encoding"), "identity");
    EXPECT_EQ(head->valueForHTTPHeaderField("Range"), std::nullopt);
  }
}

TEST(RangedURL, ResolvesTheReferenceAgainstItsBase) {
  struct Row {
    const char* reference;
    Text base;
    Text resolved;  // nullopt: no URL
  };
  const Row rows[] = {
      {"seg/1.m4s", "http://host/path/manifest.mpd", "http://host/path/seg/1.m4s"},
      {"../1.m4s", "http://host/a/b/manifest.mpd", "http://host/a/1.m4s"},
      {"../../../1.m4s", "http://host/a/manifest.mpd", "http://host/1.m4s"},
      {"?t=1", "http://host/a/manifest.mpd?old", "http://host/a/manifest.mpd?t=1"},
      {"//other/x", "https://host/a", "https://other/x"},
      {"seg/1.m4s", std::nullopt, "seg/1.m4s"},
      {"http://other/x", "http://host/a/b", "http://other/x"},
      {"http://other/x", "", "http://other/x"},
      // What RFC 3986 does not allow is percent-encoded, nothing else is touched.
      {"a b|c{d}%zz%41.m4s", "http://host/p/", "http://host/p/a%20b%7Cc%7Bd%7D%25zz%41.m4s"},
      {"\xC3\xA9.mp4", "http://host/p/", "http://host/p/%C3%A9.mp4"},
      {"a$b(1)&c=d", "http://host/p/", "http://host/p/a$b(1)&c=d"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reference);
    const auto url = QNRangedURL::rangedURLWithReferenceURL(row.reference, row.base);
    const auto resolved = url->resolveURL();
    ASSERT_EQ(resolved != nullptr, row.resolved.has_value());
    if (!resolved) continue;
    EXPECT_EQ(resolved->absoluteString(), *row.resolved);
    EXPECT_EQ(url->prepareRequest()->url()->absoluteString(), *row.resolved);
    EXPECT_EQ(url->referenceURL(), row.reference) << "the manifest's text is kept";
  }
}

TEST(RangedURL, MakesARequestWithoutURLFromWhatIsNone) {
  const auto url = QNRangedURL::rangedURLWithOffset(7, 0, "a\nb", std::nullopt);
  EXPECT_EQ(url->resolveURL(), nullptr);
  EXPECT_EQ(url->prepareRequest()->url(), nullptr);
  EXPECT_EQ(url->prepareRequest()->valueForHTTPHeaderField("Range"), "bytes=7-");
  EXPECT_EQ(url->prepareHeadRequest()->url(), nullptr);
}

TEST(RangedURL, IsReadAndWritten) {
  const auto base = std::make_shared<const std::string>("http://a/");
  QNRangedURL url(1, 2, "x", base);
  EXPECT_EQ(url.sharedBaseURL(), base);
  url.setOffset(3);
  url.setLength(4);
  url.setReferenceURL("y");
  url.setBaseURL(Text("http://b/"));
  EXPECT_EQ(url.baseURL(), "http://b/");
  EXPECT_EQ(url.prepareRequest()->valueForHTTPHeaderField("Range"), "bytes=3-4");
  EXPECT_EQ(url.resolveURL()->absoluteString(), "http://b/y");
  url.setBaseURL(Text());
  EXPECT_EQ(url.baseURL(), std::nullopt);
  EXPECT_EQ(*base, "http://a/");
}

}  // namespace
