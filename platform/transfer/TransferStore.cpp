#include "platform/transfer/TransferStore.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/PrivateDirectory.h"
#include "platform/transfer/StoreLock.h"
#include "platform/transfer/StoreReserve.h"
#include "platform/transfer/TransferStoreRows.h"
#include "platform/transfer/TransferStoreSchema.h"

namespace platform {
namespace {

constexpr const char* kOwnColumns = "description, running";
constexpr const char* kFactColumns =
    "stage, redirected_url, status, response_headers, response_length, validator, expected, "
    "file_owner, file_generation, received, synced, report_due, attempts, furthest, stalled_ms, "
    "retry_at, wait, error_domain, error_code, error_text, error_url, error_path, error_status, "
    "resume_token, boot_id";

// "a, b" -> "a = ?, b = ?"
std::string assignments(std::string columns) {
  size_t at = 0;
  while ((at = columns.find(',', at)) != std::string::npos) {
    columns.insert(at, " = ?");
    at += 5;
  }
  return columns + " = ?";
}

std::string placeholders(const std::string& columns) {
  std::string marks = "?";
  for (const char c : columns) {
    if (c == ',') marks += ", ?";
  }
  return marks;
}

bool meansDamage(int code) {
  return (code & 0xFF) == SQLITE_CORRUPT || (code & 0xFF) == SQLITE_NOTADB;
}

// A check tells of a page that could not be read as of one that is damaged, but for the code of the
// error in its text.
bool namesATransientError(const std::string& report) {
  constexpr std::string_view kMark = "error code";
  for (size_t at = report.find(kMark); at != report.npos; at = report.find(kMark, at)) {
    at += kMark.size() + 1;  // and a blank or "="
    int code = 0;
    if (at < report.size()) std::from_chars(&report[at], report.data() + report.size(), code);
    if (code != 0 && !meansDamage(code)) return true;
  }
  return false;
}

[[noreturn]] void refuse(const std::string& reason) {
  throw Exception("NSURLSessionException", reason);
}

}  // namespace

struct TransferStore::Damaged {
  std::string why;
};

TransferStore::TransferStore(const std::string& directory, const std::string& partialDirectory,
                             const std::string& identifier, int lockWaitMs)
    : directory_(directory), path_(directory + "/" + kDatabaseName) {
  ErrorPtr error;
  openPrivateDirectory(directory, PrivateDirectoryMode::Tightened, error);
  if (error) refuse(error->localizedDescription());
  lock_ = std::make_unique<StoreLock>(directory, identifier, lockWaitMs);
  files_ = std::make_unique<PartialFiles>(partialDirectory);
  try {
    open(identifier);
  } catch (const Damaged& damaged) {
    closeDatabase();
    setAside(damaged.why);
    try {
      open(identifier);
    } catch (const Damaged& again) {
      closeDatabase();
      refuse("The store " + path_ + " cannot be used: " + again.why);
    } catch (...) {
      closeDatabase();
      throw;
    }
  } catch (...) {
    closeDatabase();
    throw;
  }
  reserve_ = std::make_unique<StoreReserve>(path_ + "-wal");
}

TransferStore::~TransferStore() {
  closeDatabase();
}

void TransferStore::open(const std::string& identifier) {
  openDatabase();
  checkVersion();
  prepareStatements();
  checkIdentifier(identifier);
}

void TransferStore::openDatabase() {
  // Made here, so that it is private from its first instant; SQLite gives its other files the same
  // mode.
  FileDescriptor made(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!made) refuse(Error::errorWithErrno(errno, "open", path_)->localizedDescription());
  ::fchmod(made.get(), 0600);
  made.reset();
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path_.c_str(), &database_, flags, nullptr) != SQLITE_OK) fail("open");
  sqlite3_extended_result_codes(database_, 1);
  // The lock file is the claim on the store; one more process cannot read along, and needs not.
  run("PRAGMA locking_mode = EXCLUSIVE");
  run("PRAGMA cache_size = -512");
  run("PRAGMA temp_store = MEMORY");
}

void TransferStore::closeDatabase() {
  for (auto*& statement : statements_)
    sqlite3_finalize(statement);
  statements_.clear();
  if (database_) sqlite3_close(std::exchange(database_, nullptr));
}

// A store of a newer version is left as it is, to the byte.
void TransferStore::checkVersion() {
  const int64_t version = readInteger("PRAGMA user_version");
  const int64_t application = readInteger("PRAGMA application_id");
  const bool empty = version == 0 && readInteger("SELECT count(*) FROM sqlite_schema") == 0;
  if (!empty && application != kStoreApplicationId) throw Damaged{"it is not a session store"};
  if (version > kStoreSchemaVersion) {
    refuse("The store " + path_ + " was written by a newer version (schema " +
           std::to_string(version) + ", this one knows " + std::to_string(kStoreSchemaVersion) +
           ")");
  }
  if (version < 0 || (version == 0 && !empty)) throw Damaged{"it has no version"};
  run("PRAGMA journal_mode = WAL");
  run("PRAGMA synchronous = NORMAL");
  checkPages();
  migrate(version);
}

void TransferStore::checkPages() {
  TransferRowReader check(database_, "PRAGMA quick_check(1)");
  if (!check.next()) fail("check");
  const std::string report = check.text(0);
  if (report == "ok") return;
  if (namesATransientError(report)) refuse("Cannot read the store " + path_ + ": " + report);
  throw Damaged{report};
}

void TransferStore::migrate(int64_t version) {
  if (version == kStoreSchemaVersion) return;
  run("BEGIN IMMEDIATE");
  for (int64_t step = version; step < kStoreSchemaVersion; ++step)
    run(kStoreSchemaSteps[step]);
  run(("PRAGMA application_id = " + std::to_string(kStoreApplicationId)).c_str());
  run(("PRAGMA user_version = " + std::to_string(kStoreSchemaVersion)).c_str());
  run("COMMIT");
}

void TransferStore::prepareStatements() {
  const std::string own = kOwnColumns;
  const std::string facts = kFactColumns;
  const std::string all = "id, method, url, headers, " + own + ", " + facts;
  std::array<std::string, Count> sql;
  sql[Begin] = "BEGIN IMMEDIATE";
  sql[Commit] = "COMMIT";
  sql[Rollback] = "ROLLBACK";
  sql[Insert] = "INSERT INTO task(" + all + ") VALUES(" + placeholders(all) + ")";
  sql[UpdateOwn] = "UPDATE task SET " + assignments(own) + " WHERE id = ?";
  sql[UpdateFacts] = "UPDATE task SET " + assignments(facts) + " WHERE id = ?";
  sql[Delete] = "DELETE FROM task WHERE id = ?";
  sql[Reserve] =
      "INSERT OR REPLACE INTO sqlite_sequence(rowid, name, seq) VALUES("
      "(SELECT rowid FROM sqlite_sequence WHERE name = 'task'), 'task', ?)";
  sql[Mark] = "UPDATE session SET front = ?, mark = ? WHERE id = 1";
  statements_.assign(Count, nullptr);
  for (size_t i = 0; i < Count; ++i) {
    const int code = sqlite3_prepare_v3(database_, sql[i].c_str(), static_cast<int>(sql[i].size()),
                                        SQLITE_PREPARE_PERSISTENT, &statements_[i], nullptr);
    if (code != SQLITE_OK) fail("prepare");
  }
}

void TransferStore::checkIdentifier(const std::string& identifier) {
  TransferRowReader row(database_, "SELECT identifier FROM session WHERE id = 1");
  if (row.next()) {
    const std::string stored = row.text(0);
    if (stored == identifier) return;
    refuse("The store " + path_ + " belongs to the session \"" + stored + "\", not to \"" +
           identifier + "\"");
  }
  if (row.failed()) fail("read");
  row.finish();
  TransferRowWriter writer(database_, "INSERT INTO session(id, identifier) VALUES(1, ?)");
  writer.bind(identifier);
  if (!writer.step()) fail("write");
}

void TransferStore::setAside(const std::string& why) {
  lost_ = true;
  logError("Session store " + path_ + " is damaged (" + why + ") and was set aside as " + path_ +
           ".damaged: state lost");
  for (const char* suffix : {"", "-wal", "-journal"}) {
    const std::string from = path_ + suffix;
    const std::string to = path_ + ".damaged" + suffix;
    ::unlink(to.c_str());
    if (::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
      refuse(Error::errorWithErrno(errno, "rename", from)->localizedDescription());
    }
  }
}

bool TransferStore::saveSession(const TransferOptions& options) {
  TransferRowWriter row(database_, kSessionUpdate);
  bindSession(row, files_->directory(), options);
  return row.step();
}

TransferSessionRecord TransferStore::session() {
  TransferRowReader row(database_, kSessionSelect);
  if (!row.next()) refuseReading();
  return readSessionRow(row);
}

std::vector<TransferRecord> TransferStore::load() {
  std::vector<TransferRecord> records;
  const std::string sql = std::string("SELECT id, method, url, headers, ") + kOwnColumns + ", " +
                          kFactColumns + " FROM task ORDER BY id";
  TransferRowReader row(database_, sql.c_str());
  while (row.next())
    records.push_back(readTaskRow(row));
  if (row.failed()) refuseReading();
  return records;
}

ErrorPtr TransferStore::apply(const std::vector<TransferChange>& changes,
                              const TransferMark* mark) {
  if (changes.empty() && !mark) return nullptr;
  if (!TransferRowWriter(statements_[Begin]).step()) return changeError();
  bool applied = !mark || applyMark(*mark);
  for (auto change = changes.begin(); applied && change != changes.end(); ++change)
    applied = applyOne(*change);
  if (!applied) {
    auto error = changeError();
    TransferRowWriter(statements_[Rollback]).step();
    return error;
  }
  if (TransferRowWriter(statements_[Commit]).step()) {
    reserve_->renew();
    return nullptr;
  }
  auto error = changeError();
  if (!sqlite3_get_autocommit(database_)) TransferRowWriter(statements_[Rollback]).step();
  return error;
}

bool TransferStore::applyOne(const TransferChange& change) {
  const auto& record = change.record;
  switch (change.kind) {
    case TransferChange::Kind::Insert: {
      TransferRowWriter row(statements_[Insert]);
      bindIdentity(row, record);
      bindOwn(row, record);
      bindFacts(row, record);
      return row.step();
    }
    case TransferChange::Kind::UpdateOwn: {
      TransferRowWriter row(statements_[UpdateOwn]);
      bindOwn(row, record);
      row.bind(static_cast<int64_t>(record.id));
      return row.step();
    }
    case TransferChange::Kind::UpdateFacts: {
      TransferRowWriter row(statements_[UpdateFacts]);
      bindFacts(row, record);
      row.bind(static_cast<int64_t>(record.id));
      return row.step();
    }
    case TransferChange::Kind::Delete: {
      TransferRowWriter row(statements_[Delete]);
      row.bind(static_cast<int64_t>(record.id));
      return row.step();
    }
  }
  return false;
}

bool TransferStore::applyMark(const TransferMark& mark) {
  TransferRowWriter row(statements_[Mark]);
  row.bind(static_cast<int64_t>(mark.front));
  row.bind(static_cast<int64_t>(mark.number));
  return row.step();
}

TransferMark TransferStore::mark() {
  TransferRowReader row(database_, "SELECT front, mark FROM session WHERE id = 1");
  if (!row.next()) refuseReading();
  return {static_cast<uint64_t>(row.integer(0)), static_cast<uint64_t>(row.integer(1))};
}

TransferTaskId TransferStore::reserveIdentifiers(uint64_t count) {
  int64_t last = 0;
  {
    TransferRowReader row(database_, "SELECT seq FROM sqlite_sequence WHERE name = 'task'");
    if (row.next()) last = row.integer(0);
    if (row.failed() || last > std::numeric_limits<int64_t>::max() - static_cast<int64_t>(count))
      return 0;
  }
  TransferRowWriter writer(statements_[Reserve]);
  writer.bind(last + static_cast<int64_t>(count));
  return writer.step() ? static_cast<TransferTaskId>(last) + 1 : 0;
}

void TransferStore::run(const char* sql) {
  if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail("use");
}

int64_t TransferStore::readInteger(const char* sql) {
  TransferRowReader row(database_, sql);
  const int64_t value = row.next() ? row.integer(0) : 0;
  if (row.failed()) fail("read");
  return value;
}

void TransferStore::fail(const std::string& what) const {
  const int code = sqlite3_extended_errcode(database_);
  const std::string text = sqlite3_errmsg(database_);
  if (meansDamage(code)) throw Damaged{text};
  refuse("Cannot " + what + " the store " + path_ + ": " + text);
}

// Of a store that was opened, and with that checked: whatever is the matter, nothing is set aside.
void TransferStore::refuseReading() const {
  refuse("Cannot read the store " + path_ + ": " + sqlite3_errmsg(database_));
}

ErrorPtr TransferStore::changeError() const {
  const int code = sqlite3_errcode(database_);
  if ((code & 0xFF) == SQLITE_FULL) {
    return Error::errorWithErrno(ENOSPC, "write", path_);
  }
  const int system = sqlite3_system_errno(database_);
  const bool isInput = (code & 0xFF) == SQLITE_IOERR || (code & 0xFF) == SQLITE_CANTOPEN;
  if (isInput && system != 0 && system != kRefused)
    return Error::errorWithErrno(system, "write", path_);
  Dictionary info;
  info[NSLocalizedDescriptionKey] = "write " + path_ + ": " + sqlite3_errmsg(database_);
  info[NSFilePathErrorKey] = path_;
  const int kind = code & 0xFF;
  const bool refused =
      kind == SQLITE_CONSTRAINT || kind == SQLITE_TOOBIG || kind == SQLITE_MISMATCH;
  return Error::errorWithDomain(NSPOSIXErrorDomain, refused ? kRefused : EIO, std::move(info));
}

}  // namespace platform
