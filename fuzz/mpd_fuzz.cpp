// MPD bytes to playlist to all resource lists; listing in one go gives what each number gives by
// itself.

#include <algorithm>
#include <stdexcept>

#include "fuzz/playlist_properties.h"
#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/MultiSegmentRepresentation.h"
#include "playlist/QNPlaylistFactory.h"

namespace {

constexpr int64_t kPeriodUs = 60'000'000;
constexpr int64_t kComparedSegments = 50;

void compareSegments(const mpl::dash::MultiSegmentRepresentation& index) {
  const int64_t first = index.getFirstSegmentNum();
  const int64_t count = std::min(index.getSegmentCount(kPeriodUs), kComparedSegments);
  index.forEachSegment(first, first + count - 1, [&](const mpl::dash::ListedSegment& segment) {
    const auto one = index.getSegmentURL(segment.number);
    fuzz::require(one.resolve() == segment.uri && one.range() == segment.range);
  });
}

void compareSegments(const uint8_t* data, size_t size) {
  try {
    const auto mpd = mpl::dash::MediaPresentationDescription::parse(data, size, "");
    for (const auto& period : mpd->periods()) {
      for (const auto& set : period->adaptationSets()) {
        for (const auto& representation : set->representations()) {
          const auto* index =
              dynamic_cast<const mpl::dash::MultiSegmentRepresentation*>(representation.get());
          if (index) compareSegments(*index);
        }
      }
    }
  } catch (const std::exception&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<QNPlaylist> playlist;
  try {
    playlist = QNPlaylistFactory::dashGenerateWithData(
        std::make_shared<const platform::Data>(data, data + size));
  } catch (const platform::Exception&) {
  }
  if (playlist) fuzz::checkPlaylist(*playlist);
  compareSegments(data, size);
  return 0;
}
