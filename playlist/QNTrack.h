#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "playlist/QNMediaType.h"

class QNMovie;
class QNQuality;

// Alternatives of one piece of content: a DASH AdaptationSet, a Smooth Streaming StreamIndex. Read
// only once its playlist is built.
class QN_EXPORT QNTrack {
 public:
  using Qualities = std::vector<std::shared_ptr<QNQuality>>;

  static std::shared_ptr<QNTrack> trackWithType(QNMediaType type, double duration,
                                                std::optional<std::string> name,
                                                std::optional<std::string> language,
                                                Qualities qualities,
                                                const std::shared_ptr<QNMovie>& parent);
  static std::shared_ptr<QNTrack> trackWithType(QNMediaType type, double duration,
                                                std::optional<std::string> name,
                                                std::optional<std::string> language,
                                                size_t qualityCapacity,
                                                const std::shared_ptr<QNMovie>& parent);

  QNTrack(QNMediaType type, double duration, std::optional<std::string> name,
          std::optional<std::string> language, Qualities qualities,
          const std::shared_ptr<QNMovie>& parent);
  QNTrack(QNMediaType type, double duration, std::optional<std::string> name,
          std::optional<std::string> language, size_t qualityCapacity,
          const std::shared_ptr<QNMovie>& parent);
  QNTrack(const QNTrack&) = delete;
  QNTrack& operator=(const QNTrack&) = delete;
  virtual ~QNTrack();

  std::shared_ptr<QNMovie> parent() const { return parent_.lock(); }
  QNMediaType type() const { return type_; }
  double duration() const {
    return duration_;
  }  // seconds; negative when the manifest does not tell
  const std::optional<std::string>& name() const { return name_; }
  const std::optional<std::string>& language() const {
    return language_;
  }                                                          // as the manifest writes it
  const Qualities& qualities() const { return qualities_; }  // the live array
  void addQuality(std::shared_ptr<QNQuality> quality);       // null is ignored

  // An addition of this library: whether the manifest says that this track serves fast forward and
  // rewind only, so that its qualities are no renditions of the film.
  bool isTrickMode() const { return trickMode_; }

 protected:
  void setTrickMode(bool trickMode) { trickMode_ = trickMode; }

 private:
  std::weak_ptr<QNMovie> parent_;
  QNMediaType type_;
  double duration_;
  std::optional<std::string> name_;
  std::optional<std::string> language_;
  Qualities qualities_;
  bool trickMode_ = false;
};
