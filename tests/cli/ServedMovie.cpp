#include "tests/cli/ServedMovie.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/support/TestContent.h"

namespace qntest {
namespace {

constexpr uint64_t kSegmentBytes = 60'000;

}  // namespace

ServedMovie::ServedMovie(FaultServer& server, const std::string& name)
    : server_(server), name_(name) {
  server_.setChooser([](const FaultRequest& request) {
    Fault paced;
    paced.bytesPerSecond = request.path.ends_with("7.m4s") ? 1e5 : 1e6;
    return paced;
  });
  FaultResource manifest;
  manifest.literal =
      R"(<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" mediaPresentationDuration="PT)" +
      std::to_string(kSegments) +
      R"(S"><Period><AdaptationSet contentType="video" mimeType="video/mp4"><SegmentTemplate )"
      R"(media="$Number$.m4s" startNumber="0" duration="1"/><Representation id="v" )"
      R"(bandwidth="500000" codecs="avc1.4d401e" width="640" height="360"/></AdaptationSet>)"
      R"(</Period></MPD>)";
  server_.serve("/" + name_ + "/manifest.mpd", manifest);
  for (int i = 0; i < kSegments; ++i)
    server_.serve(pathOf(i), sizeOf(i));
}

uint64_t ServedMovie::sizeOf(int segment) {
  return kSegmentBytes / 2 + kSegmentBytes * static_cast<uint64_t>(segment % 5) / 4;
}

void ServedMovie::expectWhole(const std::string& directory) const {
  for (int i = 0; i < kSegments; ++i) {
    ASSERT_EQ(compareWithContent(directory + "/" + fileOf(i), pathOf(i), 0, sizeOf(i)), "");
  }
}

ServedMovie::Again ServedMovie::again() const {
  Again again;
  for (int i = 0; i < kSegments; ++i) {
    const size_t count = server_.requestCount(pathOf(i));
    EXPECT_GE(count, 1U) << i;
    again.requests += count - std::min<size_t>(count, 1);
    again.bytes += server_.bytesSentAgain(pathOf(i));
  }
  return again;
}

}  // namespace qntest
