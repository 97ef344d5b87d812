#include "platform/transfer/TransferStoreRows.h"

#include <utility>

#include <sqlite3.h>

#include "platform/BootIdentifier.h"

namespace platform {
namespace {

URLRequestPtr readRequest(const TransferRowReader& row, int column) {
  const auto url = row.optionalText(column + 1);
  auto request = std::make_shared<URLRequest>(url ? URL::URLWithString(*url) : nullptr);
  request->setHTTPMethod(row.text(column));
  const HTTPHeaders headers = unpackHeaders(row.text(column + 2));
  for (const auto& [name, value] : headers.fields())
    request->setValueForHTTPHeaderField(value, name);
  return request;
}

HTTPResponsePtr readResponse(const TransferRowReader& row, int column) {
  const auto url = row.optionalText(column);
  const auto status = static_cast<int>(row.integer(column + 1));
  if (!url || status == 0) return nullptr;
  return std::make_shared<const HTTPURLResponse>(URL::URLWithString(*url), status,
                                                 unpackHeaders(row.text(column + 2)),
                                                 row.integer(column + 3));
}

ErrorPtr readError(const TransferRowReader& row, int column) {
  const auto domain = row.optionalText(column);
  if (!domain) return nullptr;
  Dictionary info;
  const auto take = [&](int offset, const char* key) {
    if (auto text = row.optionalText(column + offset)) info[key] = *std::move(text);
  };
  take(2, NSLocalizedDescriptionKey);
  take(3, NSURLErrorFailingURLStringErrorKey);
  take(4, NSFilePathErrorKey);
  const int64_t status = row.integer(column + 5);
  if (status != 0) info[QNURLErrorHTTPStatusKey] = status;
  return Error::errorWithDomain(*domain, row.integer(column + 1), std::move(info));
}

void bindError(TransferRowWriter& row, const ErrorPtr& error) {
  if (!error) {
    row.bindNull();
    row.bind(int64_t{0});
    for (int i = 0; i < 3; ++i)
      row.bindNull();
    return row.bind(int64_t{0});
  }
  row.bind(error->domain());
  row.bind(error->code());
  for (const char* key :
       {NSLocalizedDescriptionKey, NSURLErrorFailingURLStringErrorKey, NSFilePathErrorKey}) {
    const auto text = error->stringForKey(key);
    text ? row.bindCopy(*text) : row.bindNull();
  }
  const auto status = error->userInfo().find(QNURLErrorHTTPStatusKey);
  const auto* value =
      status == error->userInfo().end() ? nullptr : std::any_cast<int64_t>(&status->second);
  row.bind(value ? *value : 0);
}

void bindResponse(TransferRowWriter& row, const HTTPResponsePtr& response) {
  if (!response || !response->url()) {
    row.bindNull();
    row.bind(int64_t{0});
    row.bindCopy({});
    return row.bind(int64_t{0});
  }
  row.bind(response->url()->absoluteString());
  row.bind(int64_t{response->statusCode()});
  row.bindCopy(packHeaders(response->allHeaderFields()));
  row.bind(response->expectedContentLength());
}

TransferStage stageOf(int64_t value) {
  return value == 1   ? TransferStage::Finished
         : value == 2 ? TransferStage::Failed
                      : TransferStage::None;
}

}  // namespace

TransferRowReader::TransferRowReader(sqlite3* database, const char* sql) {
  failed_ = sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr) != SQLITE_OK;
}

bool TransferRowReader::next() {
  if (failed_ || !statement_) return false;
  const int code = sqlite3_step(statement_);
  failed_ = code != SQLITE_ROW && code != SQLITE_DONE;
  return code == SQLITE_ROW;
}

void TransferRowReader::finish() {
  sqlite3_finalize(std::exchange(statement_, nullptr));
}

int64_t TransferRowReader::integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}

std::string TransferRowReader::text(int column) const {
  const void* const bytes = sqlite3_column_blob(statement_, column);
  const int size = sqlite3_column_bytes(statement_, column);
  return bytes ? std::string(static_cast<const char*>(bytes), static_cast<size_t>(size)) : "";
}

std::optional<std::string> TransferRowReader::optionalText(int column) const {
  if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
  return text(column);
}

TransferRowWriter::TransferRowWriter(sqlite3* database, const char* sql) : owned_(true) {
  sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr);
}

TransferRowWriter::~TransferRowWriter() {
  if (owned_) {
    sqlite3_finalize(statement_);
  } else {
    sqlite3_reset(statement_);
  }
}

void TransferRowWriter::bind(int64_t value) {
  sqlite3_bind_int64(statement_, next_++, value);
}

void TransferRowWriter::bind(const std::string& text) {
  sqlite3_bind_text(statement_, next_++, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void TransferRowWriter::bind(const std::optional<std::string>& text) {
  text ? bind(*text) : bindNull();
}

void TransferRowWriter::bindCopy(const std::string& text) {
  sqlite3_bind_text(statement_, next_++, text.data(), static_cast<int>(text.size()),
                    SQLITE_TRANSIENT);
}

void TransferRowWriter::bindNull() {
  sqlite3_bind_null(statement_, next_++);
}

bool TransferRowWriter::step() {
  return statement_ && sqlite3_step(statement_) == SQLITE_DONE;
}

TransferRecord readTaskRow(const TransferRowReader& row) {
  TransferRecord record;
  record.id = static_cast<TransferTaskId>(row.integer(0));
  record.request = readRequest(row, 1);
  record.description = row.optionalText(4);
  record.running = row.integer(5) != 0;
  record.stage = stageOf(row.integer(6));
  auto& content = record.content;
  content.response = readResponse(row, 7);
  content.validator = row.text(11);
  content.expected = row.integer(12);
  content.file = {static_cast<uint64_t>(row.integer(13)), static_cast<uint64_t>(row.integer(14))};
  content.received = row.integer(15);
  content.synced = row.integer(16);
  content.reportDue = row.integer(17) != 0;
  auto& effort = record.effort;
  effort.attempts = static_cast<int>(row.integer(18));
  effort.furthest = row.integer(19);
  effort.stalledMs = row.integer(20);
  effort.retryAtBootMs = row.integer(21);
  effort.wait = static_cast<URLSessionTaskWait>(row.integer(22));
  record.error = readError(row, 23);
  record.resumeToken = row.text(29);
  record.bootId = row.text(30);
  return record;
}

void bindIdentity(TransferRowWriter& row, const TransferRecord& record) {
  row.bind(static_cast<int64_t>(record.id));
  const URLRequestPtr request = record.request.get();
  row.bindCopy(request->HTTPMethod());
  request->url() ? row.bindCopy(request->url()->absoluteString()) : row.bindNull();
  row.bindCopy(packHeaders(request->allHTTPHeaderFields()));
}

void bindOwn(TransferRowWriter& row, const TransferRecord& record) {
  row.bind(record.description);
  row.bind(int64_t{record.running});
}

void bindFacts(TransferRowWriter& row, const TransferRecord& record) {
  row.bind(int64_t{static_cast<int>(record.stage)});
  const auto& content = record.content;
  bindResponse(row, content.response);
  row.bind(content.validator);
  row.bind(content.expected);
  row.bind(static_cast<int64_t>(content.file.owner));
  row.bind(static_cast<int64_t>(content.file.generation));
  row.bind(content.received);
  row.bind(content.synced);
  row.bind(int64_t{content.reportDue});
  const auto& effort = record.effort;
  row.bind(int64_t{effort.attempts});
  row.bind(effort.furthest);
  row.bind(effort.stalledMs);
  row.bind(effort.retryAtBootMs);
  row.bind(int64_t{static_cast<int>(effort.wait)});
  bindError(row, record.error);
  row.bind(record.resumeToken);
  row.bind(record.bootId.empty() ? currentBootIdentifier() : record.bootId);
}

}  // namespace platform
