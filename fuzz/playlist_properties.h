#pragma once

#include <cstdint>
#include <cstdlib>

#include "platform/Exception.h"
#include "playlist/QNInexactRanges.h"
#include "playlist/QNManifestResourceListBuilder.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNQuality.h"
#include "playlist/QNTrack.h"

namespace fuzz {

inline void require(bool holds) {
  if (!holds) std::abort();
}

// More resources than this are not listed: their number is one of the things that fuzzing finds
// quickly.
inline constexpr uint64_t kListedAtMost = 20000;

inline void checkList(const QNManifestResourceListBuilder& builder, const QNResourceListPtr& list) {
  require(list != nullptr);
  require(list->size() <= builder.extent().resources);
  uint64_t text = 0;
  for (const auto& resource : *list) {
    text += resource->referenceURL().size();
    (void)resource->prepareRequest();
  }
  require(text <= builder.extent().textBytes);
  require(QNResourceListBuilder::mergeRangedResourceURLs(*list) == *list);
  require(inexactRanges(list) <= list->size());
}

// Lists every quality: twice the same object for one base, the same resources for another.
inline void checkPlaylist(const QNPlaylist& playlist) {
  for (const auto& movie : playlist.movies()) {
    for (const auto& track : movie->tracks()) {
      for (const auto& quality : track->qualities()) {
        require(quality->fourCC().size() >= 4 && quality->type() == track->type());
        auto* builder =
            dynamic_cast<QNManifestResourceListBuilder*>(quality->resourceBuilder().get());
        require(builder != nullptr);
        if (builder->extent().resources > kListedAtMost) continue;
        try {
          const auto list = builder->fillResourcesWithBaseURL("http://host/a/manifest");
          checkList(*builder, list);
          require(builder->fillResourcesWithBaseURL("http://host/a/manifest") == list);
          const auto other = builder->fillResourcesWithBaseURL(std::nullopt);
          require(other != list && other->size() == list->size());
        } catch (const platform::Exception&) {
        }
      }
    }
  }
}

}  // namespace fuzz
