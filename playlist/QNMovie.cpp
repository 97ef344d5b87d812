#include "playlist/QNMovie.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "playlist/QNTrack.h"

std::shared_ptr<QNMovie> QNMovie::movieWithTracks(Tracks tracks, double duration,
                                                  const std::shared_ptr<QNPlaylist>& parent) {
  return std::make_shared<QNMovie>(std::move(tracks), duration, parent);
}

std::shared_ptr<QNMovie> QNMovie::movieWithTrackCapacity(
    size_t capacity, double duration, const std::shared_ptr<QNPlaylist>& parent) {
  return std::make_shared<QNMovie>(capacity, duration, parent);
}

QNMovie::QNMovie(Tracks tracks, double duration, const std::shared_ptr<QNPlaylist>& parent)
    : parent_(parent), duration_(duration), tracks_(std::move(tracks)) {}

QNMovie::QNMovie(size_t trackCapacity, double duration, const std::shared_ptr<QNPlaylist>& parent)
    : parent_(parent), duration_(duration) {
  tracks_.reserve(trackCapacity);
}

QNMovie::~QNMovie() = default;

void QNMovie::addTrack(std::shared_ptr<QNTrack> track) {
  if (track) tracks_.push_back(std::move(track));
}

QNMovie::Tracks QNMovie::tracksByType(QNMediaType type) const {
  Tracks found;
  found.reserve(tracks_.size());
  std::copy_if(tracks_.begin(), tracks_.end(), std::back_inserter(found),
               [type](const auto& track) { return track->type() == type; });
  return found;
}
