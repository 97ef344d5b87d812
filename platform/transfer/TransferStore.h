#pragma once

#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/transfer/PartialFiles.h"
#include "platform/transfer/StoredRequest.h"
#include "platform/transfer/TransferOptions.h"
#include "platform/transfer/TransferTypes.h"

struct sqlite3;
struct sqlite3_stmt;

namespace platform {

class StoreLock;
class StoreReserve;

// The bytes that were received and what is known about them.
struct TransferContent {
  PartialName file;          // generation 0: none was made
  int64_t received = 0;      // bytes in the file
  int64_t synced = 0;        // of those, what a power loss leaves
  HTTPResponsePtr response;  // that they are of
  std::string validator;     // of the same; empty: they cannot be continued
  int64_t expected = URLSessionTransferSizeUnknown;
  bool reportDue = true;  // the first report of the response was not given yet
};

// How a task tries.
struct TransferEffort {
  int attempts = 0;           // since the last progress
  int64_t furthest = 0;       // bytes received at best, also before starting over
  int64_t stalledMs = 0;      // on the task's clock without progress
  int64_t retryAtBootMs = 0;  // not before, on the boot clock; 0: at once
  URLSessionTaskWait wait = URLSessionTaskWait::None;
};

// All that is remembered of a task: its own fields are set by calls of the application, the facts
// by the transfer.
struct TransferRecord {
  TransferTaskId id = 0;
  StoredRequest request;

  std::optional<std::string> description;
  bool running = false;

  TransferStage stage = TransferStage::None;
  TransferContent content;
  TransferEffort effort;
  ErrorPtr error;           // for Failed
  std::string resumeToken;  // that resume data for the content holds; empty: there is none
  std::string bootId;       // of the boot in which the facts were true; empty: this one
};

// One change of the stored tasks.
struct TransferChange {
  enum class Kind { Insert, UpdateOwn, UpdateFacts, Delete };
  Kind kind = Kind::Insert;
  TransferRecord record;
};

// What is remembered of the session itself, so that its transfers can go on without the
// application.
struct TransferSessionRecord {
  std::string identifier;
  std::string application;  // the path of the program that opened it last
  std::string partialDirectory;
  TransferOptions options;

  bool operator==(const TransferSessionRecord&) const = default;
};

// How far the calls of a front in another process have been taken in.
struct TransferMark {
  uint64_t front = 0;   // which front, 0: none
  uint64_t number = 0;  // its last message
  bool operator==(const TransferMark&) const = default;
};

// A session's database, in SQLite's WAL mode, with the lock on its directory and the directory of
// partial files. Survives a kill at any instant; after a power loss it is whole, but may be older.
// Not thread-safe: the owner serialises.
class TransferStore {
 public:
  // Takes the lock and opens or makes the database. Throws platform::Exception
  // "NSURLSessionException" when the store is held by another process, was written by a newer
  // version, belongs to another identifier, cannot be made or cannot be read now; then everything
  // stays as it is. Only a database that was read and is damaged is set aside.
  TransferStore(const std::string& directory, const std::string& partialDirectory,
                const std::string& identifier, int lockWaitMs);
  ~TransferStore();
  TransferStore(const TransferStore&) = delete;
  TransferStore& operator=(const TransferStore&) = delete;

  // The database was damaged and set aside: what it remembered is lost.
  bool stateWasLost() const { return lost_; }
  PartialFiles& files() { return *files_; }

  // False when it could not be written.
  [[nodiscard]] bool saveSession(const TransferOptions& options);
  TransferSessionRecord session();
  // Every task, by identifier, as it was stored. Throws as the constructor does.
  std::vector<TransferRecord> load();
  // In one transaction, with the mark if there is one. Null, or why nothing was changed: with the
  // code kRefused because of what was to be written, else because it cannot be written now.
  [[nodiscard]] ErrorPtr apply(const std::vector<TransferChange>& changes,
                               const TransferMark* mark = nullptr);
  TransferMark mark();
  // The first of `count` task identifiers that will never be given out again; 0 when they cannot be
  // stored.
  [[nodiscard]] TransferTaskId reserveIdentifiers(uint64_t count);

  static constexpr const char* kDatabaseName = "session.db";
  static constexpr int64_t kRefused = EINVAL;

 private:
  class Statement;
  struct Damaged;
  enum Prepared {
    Begin,
    Commit,
    Rollback,
    Insert,
    UpdateOwn,
    UpdateFacts,
    Delete,
    Reserve,
    Mark,
    Count
  };

  void open(const std::string& identifier);
  void openDatabase();
  void closeDatabase();
  void checkVersion();
  void checkPages();
  void migrate(int64_t version);
  void prepareStatements();
  void checkIdentifier(const std::string& identifier);
  void setAside(const std::string& why);
  void run(const char* sql);
  int64_t readInteger(const char* sql);
  bool applyOne(const TransferChange& change);
  bool applyMark(const TransferMark& mark);
  [[noreturn]] void fail(const std::string& what) const;
  [[noreturn]] void refuseReading() const;
  ErrorPtr changeError() const;

  const std::string directory_;
  const std::string path_;
  std::unique_ptr<StoreLock> lock_;
  std::unique_ptr<PartialFiles> files_;
  std::unique_ptr<StoreReserve> reserve_;
  sqlite3* database_ = nullptr;
  std::vector<sqlite3_stmt*> statements_;
  bool lost_ = false;
};

}  // namespace platform
