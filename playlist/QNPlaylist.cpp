#include "playlist/QNPlaylist.h"

#include <utility>

std::shared_ptr<QNPlaylist> QNPlaylist::playlistWithMovies(Movies movies) {
  return std::make_shared<QNPlaylist>(std::move(movies));
}

std::shared_ptr<QNPlaylist> QNPlaylist::playlistWithMovieCapacity(size_t capacity) {
  return std::make_shared<QNPlaylist>(capacity);
}

QNPlaylist::QNPlaylist(Movies movies) : movies_(std::move(movies)) {}

QNPlaylist::QNPlaylist(size_t capacity) {
  movies_.reserve(capacity);
}

QNPlaylist::~QNPlaylist() = default;

void QNPlaylist::addMovie(std::shared_ptr<QNMovie> movie) {
  if (movie) movies_.push_back(std::move(movie));
}

std::optional<std::string> QNPlaylist::url() const {
  const platform::MutexLock lock(mutex_);
  return url_;
}

void QNPlaylist::setUrl(std::optional<std::string> url) {
  const platform::MutexLock lock(mutex_);
  url_ = std::move(url);
}

std::string QNPlaylist::format() const {
  return {};
}

void QNPlaylist::addOmission(std::string line) {
  if (omissions_.size() > MaximumOmissions) return;
  if (omissions_.size() == MaximumOmissions) line = "and more";
  omissions_.push_back(std::move(line));
}
