#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/transfer/TransferStore.h"

struct sqlite3;
struct sqlite3_stmt;

namespace platform {

// The rows of a query, for as long as the object lives.
class TransferRowReader {
 public:
  TransferRowReader(sqlite3* database, const char* sql);
  ~TransferRowReader() { finish(); }
  TransferRowReader(const TransferRowReader&) = delete;
  TransferRowReader& operator=(const TransferRowReader&) = delete;

  [[nodiscard]] bool next();
  bool failed() const { return failed_; }
  void finish();

  int64_t integer(int column) const;
  std::string text(int column) const;  // empty for NULL
  std::optional<std::string> optionalText(int column) const;

 private:
  sqlite3_stmt* statement_ = nullptr;
  bool failed_ = false;
};

// One execution of a statement that changes something: bind the values in order, then step.
class TransferRowWriter {
 public:
  explicit TransferRowWriter(sqlite3_stmt* prepared) : statement_(prepared) {}
  TransferRowWriter(sqlite3* database, const char* sql);
  ~TransferRowWriter();
  TransferRowWriter(const TransferRowWriter&) = delete;
  TransferRowWriter& operator=(const TransferRowWriter&) = delete;

  void bind(int64_t value);
  // The text is not copied: it stays until step() returned.
  void bind(const std::string& text);
  void bind(std::string&& text) = delete;
  void bind(const std::optional<std::string>& text);
  void bindCopy(const std::string& text);
  void bindNull();
  // Once.
  bool step();

 private:
  sqlite3_stmt* statement_ = nullptr;
  bool owned_ = false;
  int next_ = 1;
};

// A task as a row: identity, own fields and facts, in the order of the columns.
TransferRecord readTaskRow(const TransferRowReader& row);
void bindIdentity(TransferRowWriter& row, const TransferRecord& record);
void bindOwn(TransferRowWriter& row, const TransferRecord& record);
void bindFacts(TransferRowWriter& row, const TransferRecord& record);

// The session's one row.
extern const char* const kSessionSelect;
extern const char* const kSessionUpdate;
TransferSessionRecord readSessionRow(const TransferRowReader& row);
void bindSession(TransferRowWriter& row, const std::string& partialDirectory,
                 const TransferOptions& options);

}  // namespace platform
