#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/FileManager.h"
#include "platform/JSON.h"
#include "platform/Mutex.h"

// The file that describes a download without its manifest: one JSON object, compact, UTF-8, in the
// download directory. Members that the program does not know are kept.
inline constexpr const char* QNMoviePropertiesFileName = "QNMovieDownloadSetProperties.json";

// What a properties file that is set aside has behind its name.
inline constexpr const char* QNDamagedSuffix = ".damaged";

inline constexpr const char* QNSourceURLKey = "QNDownloadSetSourceURL";        // string, required
inline constexpr const char* QNManifestNameKey = "QNDownloadSetManifestName";  // string, required
inline constexpr const char* QNTitleKey = "QNDownloadSetTitle";                // string
inline constexpr const char* QNNumberOfDownloadedQualitiesKey = "QNNumberOfDownloadedQualities";
inline constexpr const char* QNNumberOfDownloadedVideoQualitiesKey =
    "QNNumberOfDownloadedVideoQualities";
inline constexpr const char* QNNumberOfDownloadedAudioQualitiesKey =
    "QNNumberOfDownloadedAudioQualities";
inline constexpr const char* QNNumberOfDownloadedTextQualitiesKey =
    "QNNumberOfDownloadedTextQualities";
inline constexpr const char* QNDownloadedQualityIdentifiersKey =
    "QNDownloadedQualityIdentifiers";                                 // array of strings
inline constexpr const char* QNHeaderOriginsKey = "QNHeaderOrigins";  // array of strings, own

// Reads a properties file. Thread-safe: each object is a lock of its own, held over file work.
//
// Every object that is handed out is of the mutable kind, and while one lives it is the only one
// for its file, whatever path leads to the directory: a second reader gets the same object, brought
// up to date with the file. So the list of downloads and an active set never overwrite each other's
// changes. `localPath` is the directory as the first reader called it.
class QN_EXPORT QNMovieDownloadProperties
    : public std::enable_shared_from_this<QNMovieDownloadProperties> {
 public:
  // Null, with a message to the log at error level, when the file is missing, unreadable, no JSON,
  // or lacks one of the required members.
  static std::shared_ptr<QNMovieDownloadProperties> propertiesWithLocalPath(
      const std::string& localPath, const std::string& jsonName);

  QNMovieDownloadProperties(const QNMovieDownloadProperties&) = delete;
  QNMovieDownloadProperties& operator=(const QNMovieDownloadProperties&) = delete;
  virtual ~QNMovieDownloadProperties();

  const std::string& localPath() const { return localPath_; }
  const std::string& jsonPath() const { return jsonPath_; }

  std::optional<platform::JSON> objectForKey(const std::string& key) const;
  std::optional<std::string> sourceURL() const;
  std::optional<std::string> title() const;
  // The stored manifest as a file URL; what a host asks for a download by.
  std::string localURL() const;
  // 0 when absent.
  uint64_t numberOfDownloadedQualities() const;
  uint64_t numberOfDownloadedVideoQualities() const;
  uint64_t numberOfDownloadedAudioQualities() const;
  uint64_t numberOfDownloadedTextQualities() const;
  // Entries that are no strings are left out; nullopt when absent.
  std::optional<std::vector<std::string>> downloadedQualityIdentifiers() const;

 protected:
  QNMovieDownloadProperties(std::string localPath, const std::string& jsonName);

  // With `unread` a file that cannot be read at all is told there instead of logged.
  [[nodiscard]] bool _readJSON(platform::ErrorPtr* unread = nullptr) REQUIRES(mutex_);

  const std::string localPath_;
  const std::string jsonPath_;
  const std::string file_;  // the same without links: what is read and written
  mutable platform::RecursiveMutex mutex_;
  platform::JSON properties_ GUARDED_BY(mutex_) = platform::JSON::object();

 private:
  std::optional<std::string> stringForKey(const char* key) const;
  uint64_t numberForKey(const char* key) const;
};

// The writing side. Every setter changes the object and replaces the file as a whole before it
// returns; a write that fails is logged and the value kept in memory.
class QN_EXPORT QNMutableMovieDownloadProperties final : public QNMovieDownloadProperties {
 public:
  // In both, `unread` (may be null) is set when the file could not be read, to what the file system
  // said (ENOENT: there is none); nothing is known of what is in it then. Null there with a null
  // result: it was read, or is no file, and is not usable.
  //
  // Reads the file when there is one and starts one otherwise. Null when an existing file cannot be
  // read. A file of another source URL or manifest name is an inconsistency of this program:
  // NSInternalInconsistencyException "Error: Mismatching source URLs" or "Error: Mismatching
  // manifest names".
  static std::shared_ptr<QNMutableMovieDownloadProperties> propertiesWithSourceURL(
      const std::string& sourceURL, const std::string& localPath, const std::string& manifestName,
      const std::string& jsonName, platform::ErrorPtr* unread = nullptr);
  // A file that cannot be read is logged only when there is no `unread` to tell it.
  static std::shared_ptr<QNMutableMovieDownloadProperties> propertiesWithLocalPath(
      const std::string& localPath, const std::string& jsonName,
      platform::ErrorPtr* unread = nullptr);

  ~QNMutableMovieDownloadProperties() override;

  // Any key; what the program does not know is kept beside its own members.
  void setObjectForKey(platform::JSON value, const std::string& key);
  void removeObjectForKey(const std::string& key);
  void setTitle(const std::optional<std::string>& title);
  void setNumberOfDownloadedQualities(uint64_t count);
  void setNumberOfDownloadedVideoQualities(uint64_t count);
  void setNumberOfDownloadedAudioQualities(uint64_t count);
  void setNumberOfDownloadedTextQualities(uint64_t count);
  void setDownloadedQualityIdentifiers(const std::vector<std::string>& identifiers);

  // Whether the file holds what this object does: the last write succeeded.
  bool isWritten() const;
  // Whether a scheduled write is pending.
  bool writeQueued() const;
  void setWriteQueued(bool queued);
  // Writes the latest contents once on the background queue, however often it is called before.
  void _scheduleWriteJSON();
  [[nodiscard]] bool _writeJSON() REQUIRES(mutex_);

 private:
  QNMutableMovieDownloadProperties(std::string localPath, const std::string& jsonName);
  void setNumberForKey(uint64_t count, const char* key);
  [[nodiscard]] bool open(const std::string& sourceURL, const std::string& manifestName,
                          platform::ErrorPtr* unread) REQUIRES(mutex_);
  static std::shared_ptr<QNMutableMovieDownloadProperties> sharedObject(
      const std::string& localPath, const std::string& jsonName);
  using Object = std::shared_ptr<QNMutableMovieDownloadProperties>;
  struct Registry;
  static Registry& registry();

  // In which directory the file was found last, and its name; guarded by the registry's lock.
  using Location = std::pair<platform::FileManager::Identity, std::string>;
  std::optional<Location> location_;

  bool writeQueued_ GUARDED_BY(mutex_) = false;
  bool unwritten_ GUARDED_BY(mutex_) = false;  // the last write failed: memory is newer
};
