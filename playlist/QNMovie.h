#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "playlist/QNMediaType.h"

class QNPlaylist;
class QNTrack;

// One continuous piece of a presentation: a DASH Period, or a whole Smooth Streaming presentation.
// Read only once its playlist is built.
class QN_EXPORT QNMovie {
 public:
  using Tracks = std::vector<std::shared_ptr<QNTrack>>;

  static std::shared_ptr<QNMovie> movieWithTracks(Tracks tracks, double duration,
                                                  const std::shared_ptr<QNPlaylist>& parent);
  static std::shared_ptr<QNMovie> movieWithTrackCapacity(size_t capacity, double duration,
                                                         const std::shared_ptr<QNPlaylist>& parent);

  QNMovie(Tracks tracks, double duration, const std::shared_ptr<QNPlaylist>& parent);
  QNMovie(size_t trackCapacity, double duration, const std::shared_ptr<QNPlaylist>& parent);
  QNMovie(const QNMovie&) = delete;
  QNMovie& operator=(const QNMovie&) = delete;
  virtual ~QNMovie();

  std::shared_ptr<QNPlaylist> parent() const { return parent_.lock(); }
  double duration() const {
    return duration_;
  }  // seconds; negative when the manifest does not tell
  const std::optional<std::string>& name() const { return name_; }  // nothing sets it

  const Tracks& tracks() const { return tracks_; }  // the live array
  void addTrack(std::shared_ptr<QNTrack> track);    // null is ignored
  // In the order of `tracks`.
  Tracks tracksByType(QNMediaType type) const;
  Tracks videoTracks() const { return tracksByType(QNMediaTypeVideo); }
  Tracks audioTracks() const { return tracksByType(QNMediaTypeAudio); }
  Tracks textTracks() const { return tracksByType(QNMediaTypeText); }

 private:
  std::weak_ptr<QNPlaylist> parent_;
  double duration_;
  std::optional<std::string> name_;
  Tracks tracks_;
};
