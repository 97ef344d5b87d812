#include "playlist/QNTrack.h"

#include <utility>

std::shared_ptr<QNTrack> QNTrack::trackWithType(QNMediaType type, double duration,
                                                std::optional<std::string> name,
                                                std::optional<std::string> language,
                                                Qualities qualities,
                                                const std::shared_ptr<QNMovie>& parent) {
  return std::make_shared<QNTrack>(type, duration, std::move(name), std::move(language),
                                   std::move(qualities), parent);
}

std::shared_ptr<QNTrack> QNTrack::trackWithType(QNMediaType type, double duration,
                                                std::optional<std::string> name,
                                                std::optional<std::string> language,
                                                size_t qualityCapacity,
                                                const std::shared_ptr<QNMovie>& parent) {
  return std::make_shared<QNTrack>(type, duration, std::move(name), std::move(language),
                                   qualityCapacity, parent);
}

QNTrack::QNTrack(QNMediaType type, double duration, std::optional<std::string> name,
                 std::optional<std::string> language, Qualities qualities,
                 const std::shared_ptr<QNMovie>& parent)
    : parent_(parent),
      type_(type),
      duration_(duration),
      name_(std::move(name)),
      language_(std::move(language)),
      qualities_(std::move(qualities)) {}

QNTrack::QNTrack(QNMediaType type, double duration, std::optional<std::string> name,
                 std::optional<std::string> language, size_t qualityCapacity,
                 const std::shared_ptr<QNMovie>& parent)
    : QNTrack(type, duration, std::move(name), std::move(language), Qualities(), parent) {
  qualities_.reserve(qualityCapacity);
}

QNTrack::~QNTrack() = default;

void QNTrack::addQuality(std::shared_ptr<QNQuality> quality) {
  if (quality) qualities_.push_back(std::move(quality));
}
