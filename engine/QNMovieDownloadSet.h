#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "engine/QNDownloadStats.h"
#include "engine/QNMovieDownloadProperties.h"
#include "engine/QNMovieDownloadSetDelegate.h"
#include "engine/QNSessionController.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/URLSession.h"

class QNDownloadHold;
class QNDownloadRecord;
class QNMovie;
class QNPlaylist;
class QNQuality;
class QNQualityDownloadInfo;
class QNResourceDownloadInfo;
class QNResourceId;
class QNStoredPlaces;
struct QNStoredFile;

// The application's handle on one offline download: the first movie of a playlist, stored in one
// directory. Which qualities are wanted is chosen while nothing is active; then they are started,
// paused, resumed and cancelled together. Finished ones move from "selected" to "downloaded",
// failed ones stay selected and startable. Any thread may call; every method holds the set's lock
// for its whole run, and delegate calls are made under it. The lock is recursive and shared with
// the downloader.
//
// Misuse throws platform::Exception "QNMovieDownloadSetException" with the reasons given below.
class QN_EXPORT QNMovieDownloadSet final : public QNDownloadStats,
                                           public std::enable_shared_from_this<QNMovieDownloadSet> {
 public:
  using Quality = std::shared_ptr<QNQuality>;
  using QualityInfo = std::shared_ptr<QNQualityDownloadInfo>;
  using Resource = std::shared_ptr<QNResourceDownloadInfo>;
  using Task = std::shared_ptr<platform::URLSessionDownloadTask>;

  // What the downloader adds when it makes a set.
  struct Construction {
    std::shared_ptr<platform::RecursiveMutex> mutex;  // the shared lock; null: one of its own
    // Called once everything that can fail for the playlist's sake has succeeded, before anything
    // is stored; what it throws leaves the initialiser.
    std::function<void()> beforeStoring;
    // What the directory's record says; null: it is read inside the initialiser.
    std::shared_ptr<QNDownloadRecord> record;
  };

  // Made by the downloader. Lists every quality's resources (and throws what their builders throw),
  // opens the properties file (one that is not usable is set aside as "<name>.damaged") and picks
  // up what lies in the directory. Throws "QNMovieDownloadSetException": "Playlist has no movie",
  // "Properties file can neither be read nor replaced", and "Properties file cannot be read" (user
  // info "NSError") while the file system refuses it: then nothing is changed.
  static std::shared_ptr<QNMovieDownloadSet> downloadSetWithPlaylist(
      std::shared_ptr<QNPlaylist> playlist, const std::string& downloadPath,
      const std::string& manifestName, const std::string& sourceURL, const std::string& downloadId,
      const std::shared_ptr<QNSessionController>& controller,
      const Construction& construction = {});

  QNMovieDownloadSet(const QNMovieDownloadSet&) = delete;
  QNMovieDownloadSet& operator=(const QNMovieDownloadSet&) = delete;
  ~QNMovieDownloadSet() override;

  // Constant after construction.
  const std::shared_ptr<QNPlaylist>& playlist() const { return playlist_; }
  const std::shared_ptr<QNMovie>& movie() const { return movie_; }
  const std::string& downloadPath() const { return downloadPath_; }
  const std::string& sourceURL() const { return sourceURL_; }
  // The source URL without query, fragment and last path component, ending in "/".
  const std::string& baseURL() const { return baseURL_; }
  const std::string& downloadId() const { return downloadId_; }
  const std::shared_ptr<QNMutableMovieDownloadProperties>& properties() const {
    return properties_;
  }

  QNHeadersPtr additionalHeaders() const;
  void setAdditionalHeaders(QNHeadersPtr headers);  // used from the next start on
  // Own addition: which servers get the additional headers. nullopt (as long as nothing else was
  // said): all, whatever the manifest names. Else the origin of `sourceURL` and these, each
  // "scheme://host" or "scheme://host:port"; they are given back with their port. Kept in the
  // properties file, so that a later launch acts alike. A redirect to another origin takes no
  // headers along in either case. Changed only while idle: "Can't limit headers in non-idle state",
  // "Not an origin: <text>", "Failed to record where headers may go" (then the limit before holds).
  std::optional<QNHeaderOrigins> headerOrigins() const;
  void setHeaderOrigins(const std::optional<QNHeaderOrigins>& origins);
  bool sendsHeadersTo(const platform::URL& url) const;
  std::shared_ptr<QNMovieDownloadSetDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<QNMovieDownloadSetDelegate>& delegate);  // held weakly
  std::any userObject() const;
  void setUserObject(std::any object);

  // Selection, only while idle: "Can't select quality in non-idle state", "Can't deselect quality
  // in non-idle state", "Quality not available in movie", "Quality has invalid media type".
  // Selecting what is selected or downloaded and deselecting what is not selected do nothing.
  void selectQuality(const Quality& quality);
  void deselectQuality(const Quality& quality);
  void selectAllQualities();
  void deselectAllQualities();

  // Removal of files, only while idle: "Can't remove quality in non-idle state", "Can't remove
  // qualities in non-idle state", "Quality not available in movie", "Failed to remove all resource
  // files for quality", "Failed to remove all resource files for all qualities". Files that another
  // downloaded or selected quality lists stay.
  void removeDownloadedQuality(const Quality& quality);
  void removeAllDownloadedQualities();

  // While anything is active the set holds its directory, and the two above hold it while they
  // remove. They and a start throw "QNMovieDownloaderException" "Download is held by <holder>"
  // (user info QNDownloadHolderKey) while another downloader does, before anything is changed. With
  // the hold they look first at what others did: what appeared counts as stored, what vanished is
  // forgotten; a quality that is whole by that moves to the downloaded ones, one that no longer is
  // leaves them.
  //
  // False when something is active already, or nothing was there to be started. What failed before
  // is tried again, with all its attempts. The set's headers win over the call's. Asserts
  // "Controller is required to be non-null": the downloader is gone.
  bool downloadWithAdditionalHeaders(const QNHeadersPtr& headers);
  // Nothing happens when nothing runs, waits, respectively is active.
  void pause();
  void resume();
  void cancel();

  // From the controller. A task is not taken while another downloader holds the download.
  [[nodiscard]] bool reattachResource(const QNResourceId& id, const Task& task);
  void resourceCompleteWithError(const Resource& resource, const platform::ErrorPtr& error);
  void resourceBytesDownloadedAndExpected(const Resource& resource, int64_t downloaded,
                                          int64_t expected);

  QNDownloadStatus status() const;
  // Over selected and downloaded qualities, always as an estimate; an unknown one counts as -1.
  QNDownloadSize expectedBytes() const override;
  // Starts at the size of what lies in the directory, moves by differences, 0 after a completion.
  int64_t downloadedBytes() const override;
  QNDownloadProgress progress() const override;
  std::vector<Quality> selectedQualities() const;
  std::vector<Quality> downloadedQualities() const;
  std::vector<QualityInfo> selectedQualitiesInfo() const;
  std::vector<QualityInfo> downloadedQualitiesInfo() const;
  size_t numberOfSelectedQualities() const;
  size_t numberOfDownloadedQualities() const;
  bool isQualitySelected(const Quality& quality) const;
  bool isQualityDownloaded(const Quality& quality) const;
  // A foreign quality has an unknown size and no bytes.
  QNDownloadSize expectedBytesForQuality(const Quality& quality) const;
  int64_t downloadedBytesForQuality(const Quality& quality) const;
  QNDownloadProgress progressForQuality(const Quality& quality) const;
  QNDownloadSize totalSize() const;  // of the whole movie
  QNDownloadSize selectedSize() const;
  int64_t downloadedSize() const;

  // Selected qualities by media type, and counts of selected qualities: size known; of those
  // estimated; active; of those running; completed since the last start; of those failed.
  size_t numVideoQualities() const;
  size_t numAudioQualities() const;
  size_t numTextQualities() const;
  size_t numSized() const;
  size_t numEstimated() const;
  size_t numActive() const;
  size_t numRunning() const;
  size_t numCompleted() const;
  size_t numFailed() const;
  QNDownloadSize sizedBytes() const;

  static QNDownloadSize expectedBytesFor(const std::vector<QualityInfo>& infos);
  static int64_t downloadedBytesFor(const std::vector<QualityInfo>& infos);
  static std::vector<Quality> _qualitiesWithQualitiesInfo(const std::vector<QualityInfo>& infos);

  // Own additions.
  // The download of a quality of this movie, null for a foreign one. To be read under `mutex`.
  QualityInfo qualityInfoForQuality(const Quality& quality) const;
  // The bytes that are there now, over selected and downloaded qualities: the figure to show.
  int64_t resourceBytes() const;
  int64_t resourceBytesForQuality(const Quality& quality) const;
  // The set's lock, to read several figures as of one moment.
  const std::shared_ptr<platform::RecursiveMutex>& mutex() const { return mutexOwner_; }
  void _checkInvariants() const;
  // For resources: why one cannot be stored as things are (a place that is no file's, or another
  // resource's), null when it can.
  platform::ErrorPtr errorForPlace(const QNResourceDownloadInfo& resource) const;

 private:
  friend class QNMovieDownloader;
  using Delegate = std::shared_ptr<QNMovieDownloadSetDelegate>;

  QNMovieDownloadSet(std::shared_ptr<QNPlaylist> playlist, const std::string& downloadPath,
                     const std::string& sourceURL, const std::string& downloadId,
                     std::shared_ptr<platform::RecursiveMutex> mutex);
  void listQualities(const std::shared_ptr<QNSessionController>& controller) REQUIRES(mutex_);
  void openProperties(const std::string& manifestName) REQUIRES(mutex_);
  void openRecord(std::shared_ptr<QNDownloadRecord> record,
                  const std::shared_ptr<QNSessionController>& controller) REQUIRES(mutex_);
  void pickUpStoredFiles() REQUIRES(mutex_);
  using Sizes = std::unordered_map<std::string, int64_t>;
  Sizes _sizesOfFiles(int64_t* total = nullptr) const REQUIRES(mutex_);
  int64_t _storedSizeOf(const Resource& resource, const Sizes& sizes) REQUIRES(mutex_);
  size_t pickUpQuality(const QualityInfo& info, const Sizes& sizes) REQUIRES(mutex_);
  [[nodiscard]] platform::ErrorPtr makeRecord() REQUIRES(mutex_);
  void scheduleFlush() REQUIRES(mutex_);
  void loseFile(const Resource& resource, const platform::ErrorPtr& error) REQUIRES(mutex_);
  void loseResource(const Resource& resource, const platform::ErrorPtr& error) REQUIRES(mutex_);
  using Hold = std::shared_ptr<const QNDownloadHold>;
  Hold _takeHold() REQUIRES(mutex_);
  void _useHold(const Hold& hold) REQUIRES(mutex_);
  Hold _holdToStart() REQUIRES(mutex_);
  Hold _holdToChange(bool isStart = false) REQUIRES(mutex_);
  std::optional<Hold> _holdForTask() REQUIRES(mutex_);
  void _releaseHoldWhenIdle() REQUIRES(mutex_);
  void _lookAgain() REQUIRES(mutex_);
  void _lookAgainAt(const QualityInfo& info, const Sizes& sizes) REQUIRES(mutex_);

  QualityInfo requiredInfo(const Quality& quality) const REQUIRES(mutex_);
  size_t& countOfType(const QualityInfo& info) REQUIRES(mutex_);
  void _selectQuality(const QualityInfo& info) REQUIRES(mutex_);
  void _deselectQuality(const QualityInfo& info) REQUIRES(mutex_);
  void _addSelectedQuality(const QualityInfo& info) REQUIRES(mutex_);
  void _removeSelectedQuality(const QualityInfo& info) REQUIRES(mutex_);
  void countCompleted(const QualityInfo& info) REQUIRES(mutex_);
  void uncountCompleted(const QualityInfo& info) REQUIRES(mutex_);
  [[nodiscard]] bool _removeDownloadedQuality(const QualityInfo& info,
                                              const std::unordered_set<std::string>& kept)
      REQUIRES(mutex_);
  void forgetFiles(const std::unordered_set<std::string>& places) REQUIRES(mutex_);
  QualityInfo infoForTask(const QNResourceId& id,
                          const platform::URLSessionDownloadTask& task) const REQUIRES(mutex_);
  QNHeadersPtr _mergeHeaders(const QNHeadersPtr& headers) const REQUIRES(mutex_);
  void readHeaderOrigins() REQUIRES(mutex_);
  void takeHeadersOfTask(const Task& task) REQUIRES(mutex_);
  void giveHeaders(const QNHeadersPtr& headers) REQUIRES(mutex_);
  void _pauseQuality(const QualityInfo& info) REQUIRES(mutex_);
  void _resumeQuality(const QualityInfo& info) REQUIRES(mutex_);
  void _cancelQuality(const QualityInfo& info) REQUIRES(mutex_);
  void _resourceCompleteWithError(const Resource& resource, const platform::ErrorPtr& error)
      REQUIRES(mutex_);
  bool everySelectedCompleted() const REQUIRES(mutex_);
  platform::ErrorPtr _makeError() const REQUIRES(mutex_);
  void _completeWithError(const platform::ErrorPtr& error) REQUIRES(mutex_);
  void settle() REQUIRES(mutex_);
  void updateProperties() REQUIRES(mutex_);
  void writeChangedProperties() REQUIRES(mutex_);
  bool _updateExpectedFrom(QNDownloadSize oldSize, QNDownloadSize newSize) REQUIRES(mutex_);
  void _updateDownloadedFrom(int64_t oldBytes, int64_t newBytes) REQUIRES(mutex_);
  QNDownloadSize _expectedBytes() const REQUIRES(mutex_);
  void tellStatus(QNDownloadStatus status) REQUIRES(mutex_);
  template <class Call>
  void tell(Call call) REQUIRES(mutex_);

  // For the downloader. Headers that it was given: what was found again after a relaunch, limited
  // and without a task that carries any, uses them from its next request on.
  void adoptHeaders(const QNHeadersPtr& headers);
  // A set that is being removed does not start and does not touch its
  // directory.
  void setRemoved(bool removed);
  bool isRemoved() const;
  // The hold on the directory, its own where there is one; null when there is nothing to hold, or
  // the set was removed. Throws when another downloader has it.
  Hold takeHold();
  Hold currentHold() const;        // its own only
  void useHold(const Hold& hold);  // one that the downloader took, as long as that keeps it
  void dropHold();
  // Why the finished file of this resource cannot be stored, null when it can: then its line is in
  // the record, and the file is to be moved to its place next, unless a resource of another quality
  // that is the same has put it there already (`isThere`).
  [[nodiscard]] platform::ErrorPtr prepareToStore(const Resource& resource,
                                                  const QNStoredFile& file, bool& isThere);
  // The file is at its place.
  void didStore(const Resource& resource, const std::string& path);
  // Whether the completion of this resource completes its quality, which is told and recorded only
  // of what is on the disk.
  bool isLastOfItsQuality(const Resource& resource) const;
  // Brings what was stored to the disk. Takes the time that a disk takes: the lock must not be
  // held. What could not be brought there is lost: its resources are fetched again within their
  // budget.
  void flushStoredFiles();

  // Constant after construction.
  const std::shared_ptr<platform::RecursiveMutex> mutexOwner_;
  platform::RecursiveMutex& mutex_;
  const std::shared_ptr<QNPlaylist> playlist_;
  std::shared_ptr<QNMovie> movie_;
  const std::string downloadPath_;
  const std::string sourceURL_;
  const std::string baseURL_;
  const std::string sourceOrigin_;  // of the source URL, empty when it is none
  const std::string downloadId_;
  const std::string holderName_;
  std::shared_ptr<QNMutableMovieDownloadProperties> properties_;
  std::vector<QualityInfo> qualities_;  // every quality, in the order of the movie
  std::unordered_map<Quality, QualityInfo> qualityInfoMap_;

  // One flush at a time, so that none returns before what another one took over is on the disk.
  // Taken before mutex_.
  platform::Mutex flushMutex_;

  std::unique_ptr<QNStoredPlaces> places_ GUARDED_BY(mutex_);
  std::shared_ptr<QNDownloadRecord> record_ GUARDED_BY(mutex_);
  // Files that count as absent although they are there, by their keys: none of ours, or not whole.
  std::unordered_set<std::string> untrusted_ GUARDED_BY(mutex_);
  std::vector<Resource> unflushed_ GUARDED_BY(mutex_);  // stored since the last flush
  bool flushIsDue_ GUARDED_BY(mutex_) = false;
  std::optional<unsigned> mediaMode_ GUARDED_BY(mutex_);  // read with the first file after a start
  std::vector<QualityInfo> selectedQualitiesInfo_ GUARDED_BY(mutex_);
  std::vector<QualityInfo> downloadedQualitiesInfo_ GUARDED_BY(mutex_);
  size_t numVideoQualities_ GUARDED_BY(mutex_) = 0;
  size_t numAudioQualities_ GUARDED_BY(mutex_) = 0;
  size_t numTextQualities_ GUARDED_BY(mutex_) = 0;
  size_t numSized_ GUARDED_BY(mutex_) = 0;
  size_t numEstimated_ GUARDED_BY(mutex_) = 0;
  size_t numActive_ GUARDED_BY(mutex_) = 0;
  size_t numRunning_ GUARDED_BY(mutex_) = 0;
  size_t numCompleted_ GUARDED_BY(mutex_) = 0;
  size_t numFailed_ GUARDED_BY(mutex_) = 0;
  QNDownloadSize sizedBytes_ GUARDED_BY(mutex_) = QNDownloadSizeZero;
  int64_t downloadedBytes_ GUARDED_BY(mutex_) = 0;
  uint64_t starts_ GUARDED_BY(mutex_) = 0;  // tells a callback that started the set again
  bool removed_ GUARDED_BY(mutex_) = false;
  Hold hold_ GUARDED_BY(mutex_);                                     // while anything is active
  std::weak_ptr<const QNDownloadHold> lastHold_ GUARDED_BY(mutex_);  // whoever keeps it
  bool lookDue_ GUARDED_BY(mutex_) = false;  // another had the directory since the last look
  bool othersUnflushed_ GUARDED_BY(mutex_) =
      false;  // and what it found was not brought to the disk
  QNHeadersPtr additionalHeaders_ GUARDED_BY(mutex_);
  QNHeadersPtr foundHeaders_ GUARDED_BY(mutex_);  // of tasks that an earlier launch made
  std::optional<QNHeaderOrigins> headerOrigins_ GUARDED_BY(mutex_);
  std::weak_ptr<QNMovieDownloadSetDelegate> delegate_ GUARDED_BY(mutex_);
  std::any userObject_ GUARDED_BY(mutex_);
};
