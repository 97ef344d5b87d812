#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/FileManager.h"

// Lies in the download's directory. Searches for a manifest skip the extension.
inline constexpr const char* QNDownloadRecordFileName = "QNMovieDownloadRecord.json";

// What is known of a file that was received.
struct QNStoredFile {
  int64_t length = 0;
  std::optional<uint64_t> hash;  // platform::ContentHash of its bytes as they were received
  std::string validator;         // as the server sent it
  std::string address;           // "<Range header or empty> <absolute URL>", as it was asked for
};

// What was stored in one download's directory, a line each (QNRecordLine.h), only ever appended.
// The line of a file is written before the file gets its name, so that in a download that has a
// record a file without a line, or of another length, is none of ours and counts as absent.
//
// A mark says how far the lines speak of what is on the disk for certain. What comes after it is
// trusted in the boot that wrote the mark; in any other boot the machine may have lost power, and
// the bytes of these files, and of these only, are compared with what was received.
//
// Written by whoever downloads, of whom there is one at a time. Not thread-safe: a set's record is
// guarded by the set's lock; `load` and the flush of what `flushPoint` gives need no lock.
class QNDownloadRecord {
 public:
  static constexpr uint64_t version = 1;

  // Reads the record and settles what an earlier launch left after the last mark, which may read
  // whole files and flush the file system. One in which more than half is stale is written anew,
  // unless somebody holds the download.
  static std::shared_ptr<QNDownloadRecord> load(const std::string& directory,
                                                const std::string& bootIdentifier);
  // The record as it is now, for whoever has settled it in this boot and wants to know what others
  // stored and removed since: nothing is read but the record, and nothing flushed.
  std::shared_ptr<QNDownloadRecord> readAgain() const;
  // False when nobody wrote a line since this was read.
  bool hasChanged() const;
  ~QNDownloadRecord();
  QNDownloadRecord(const QNDownloadRecord&) = delete;
  QNDownloadRecord& operator=(const QNDownloadRecord&) = delete;

  // Why there is a record that cannot be read now; null otherwise.
  const platform::ErrorPtr& readError() const { return readError_; }
  // False without one, and with one of a newer version, which is left alone.
  bool isThere() const { return isThere_; }
  // Whether a file of this size at this place is one that was stored; always, without a record.
  bool trusts(std::string_view place, int64_t size) const;
  // Where the bytes at a place were received from; nullopt when the record does not say it.
  std::optional<std::string> addressAt(std::string_view place) const;
  // Lets go of what was read. `trusts` and `addressAt` are not to be asked any more.
  void forgetFiles();

  struct Adopted {
    std::string place;
    int64_t length = 0;
    std::string address;  // where several resources compete for the place
  };
  // Makes the record where there is none, durably, with what was stored before there were records.
  [[nodiscard]] platform::ErrorPtr make(const std::vector<Adopted>& files);
  // To be called before the file gets its name.
  [[nodiscard]] platform::ErrorPtr add(std::string_view place, const QNStoredFile& file);
  // After the files were removed. A line that cannot be written is missing only until the next one.
  void remove(const std::vector<std::string>& places);

  // Where the record ends now, with a hold on its file system.
  struct FlushPoint {
    std::shared_ptr<platform::FileManager::AppendedFile> file;  // null: nothing can be flushed
    platform::ErrorPtr error;                                   // why
    uint64_t end = 0;
  };
  FlushPoint flushPoint();
  // Everything before that point is on the disk.
  void mark(const FlushPoint& point);

 private:
  class Table;

  QNDownloadRecord(const std::string& directory, const std::string& bootIdentifier);
  std::string stateOnDisk() const;
  void read();
  void readLines(std::string_view text);
  // Whether everything that counts is on the disk now.
  [[nodiscard]] bool settle();
  void rewriteIfStale();
  bool isWhole(std::string_view place, int64_t length, std::optional<uint64_t> hash) const;
  [[nodiscard]] platform::ErrorPtr open();
  [[nodiscard]] platform::ErrorPtr append(std::string_view lines);
  [[nodiscard]] platform::ErrorPtr write(std::string_view lines);

  const std::string directory_;
  const std::string path_;
  const std::string boot_;
  platform::ErrorPtr readError_;
  std::string readAs_;  // which file it was, and how long
  bool isThere_ = false;
  bool isNewer_ = false;
  size_t lines_ = 0;         // of files, there or gone
  bool endsInside_ = false;  // of a line, which the next one has to end
  std::string markedBoot_;   // of the last mark
  uint64_t markedEnd_ = 0;
  std::string unwritten_;  // lines that have to come before any other
  platform::DataPtr text_;
  std::unique_ptr<Table> table_;
  std::shared_ptr<platform::FileManager::AppendedFile> file_;
};
