#pragma once

#include <memory>
#include <string>

#include "engine/QNMovieDownloader.h"

namespace cli {

// Where one download has its things. One process at a time works on a download, whoever holds its
// session.
struct Place {
  std::string root;  // canonical
  std::string downloadId;
  std::string directory;  // root / download identifier
  std::string sessionIdentifier;
  std::string recordPath;      // beside the session's store, mode 0600
  std::string storeDirectory;  // the session's

  // Throws Failure (ExitCannotWrite) when the root cannot be made.
  static Place forURL(const std::string& root, const std::string& url);
  // The root need not exist.
  static Place forDownloadId(const std::string& root, const std::string& downloadId);

  // Whether anything is stored.
  bool exists() const;
  bool hasManifest(const QNMovieDownloader& downloader) const;
  bool hasProperties() const;
  // The manifest URL that the stored download was made from; empty when nothing says so.
  std::string storedURL() const;

  // Opens the session and finds the tasks of earlier launches. Throws Failure (ExitHeld) when
  // another process holds it.
  std::shared_ptr<QNMovieDownloader> openDownloader() const;
};

// Whether the text has the form of a download identifier.
bool isDownloadId(const std::string& text);

}  // namespace cli
