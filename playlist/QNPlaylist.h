#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/Mutex.h"

class QNMovie;

// The format-neutral picture of one manifest: movies, their tracks, the tracks' qualities. Built on
// one thread, read only afterwards; only `url` may be set while others read. Parents own their
// children, children know their parents weakly, so that dropping the playlist frees the tree.
class QN_EXPORT QNPlaylist {
 public:
  using Movies = std::vector<std::shared_ptr<QNMovie>>;

  static std::shared_ptr<QNPlaylist> playlistWithMovies(Movies movies);
  static std::shared_ptr<QNPlaylist> playlistWithMovieCapacity(size_t capacity);

  explicit QNPlaylist(Movies movies);
  explicit QNPlaylist(size_t capacity);
  QNPlaylist(const QNPlaylist&) = delete;
  QNPlaylist& operator=(const QNPlaylist&) = delete;
  virtual ~QNPlaylist();

  // The live array.
  const Movies& movies() const { return movies_; }
  // Null is ignored. The movie's parent is given to its own constructor.
  void addMovie(std::shared_ptr<QNMovie> movie);

  // The manifest's address as text; nullopt until the downloader has set it.
  std::optional<std::string> url() const;
  void setUrl(std::optional<std::string> url);

  // Additions of this library, for programs that show a manifest.
  // "dash", "smooth", or empty for a playlist that was made by hand.
  virtual std::string format() const;
  // What the manifest holds and the model leaves out, one line for a person each; after
  // MaximumOmissions "and more".
  static constexpr size_t MaximumOmissions = 100;
  const std::vector<std::string>& omissions() const { return omissions_; }
  void addOmission(std::string line);

 private:
  Movies movies_;
  std::vector<std::string> omissions_;
  mutable platform::Mutex mutex_;
  std::optional<std::string> url_ GUARDED_BY(mutex_);
};
