#pragma once

#include <memory>
#include <optional>
#include <string>

#include "cli/Failure.h"
#include "engine/QNMovieDownloader.h"
#include "platform/Exception.h"

namespace cli {

// A record is the session's store directory with this.
inline constexpr const char* kRecordExtension = ".qnmovie.json";

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

  // Of the download that `text` (URL or identifier) means.
  static Place forTarget(const std::string& root, const std::string& text);
  // The place of a session of this program, which its record tells; nullopt without one.
  static std::optional<Place> forSession(const std::string& sessionIdentifier);

  // Whether anything is stored.
  bool exists() const;
  bool hasManifest(const QNMovieDownloader& downloader) const;
  bool hasProperties() const;
  // The manifest URL that the stored download was made from; empty when nothing says so.
  std::string storedURL() const;

  // Opens the session and finds the tasks of earlier launches. Throws Failure: ExitHeld when
  // another process holds it, ExitCannotWrite when its store cannot be used. In the transfer
  // service when that is asked for or was once: then the service starts this program again when it
  // dies.
  std::shared_ptr<QNMovieDownloader> openDownloader(bool useService = false) const;
  bool usesService() const;
  // The directory of the session's partial files.
  std::string partialDirectory() const;
};

// For a session or a download that another process has: ExitHeld, and who it is. nullopt for any
// other exception.
std::optional<Failure> failureOfHeld(const platform::Exception& exception);
// Whether the text has the form of a download identifier.
bool isDownloadId(const std::string& text);

}  // namespace cli
