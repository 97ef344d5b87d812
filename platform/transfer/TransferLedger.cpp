#include "platform/transfer/TransferLedger.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include <sys/random.h>

#include "platform/BootIdentifier.h"
#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/transfer/TransferClock.h"
#include "platform/transfer/TransferErrors.h"

namespace platform {
namespace {

// Task identifiers are claimed in the store in blocks, so that making a task needs no transaction
// of its own and a kill can only waste numbers.
constexpr uint64_t kIdentifierBlock = 1024;

// A store that could not be written is tried again after so long.
constexpr int64_t kStoreRetryMs = 1'000;

// Not to be guessed, so that nobody's resume data fits by chance.
std::string makeResumeToken() {
  unsigned char bytes[16] = {};
  static_cast<void>(!::getrandom(bytes, sizeof bytes, 0));
  std::string token;
  for (const unsigned char byte : bytes) {
    token += "0123456789abcdef"[byte >> 4];
    token += "0123456789abcdef"[byte & 15];
  }
  return token;
}

std::string urlOf(const TransferRecord& record) {
  const URLPtr url = record.request.get()->url();
  return url ? url->absoluteString() : "";
}

// The next file of the task gets a generation of its own.
void dropContent(TransferContent& content) {
  const PartialName name = content.file;
  content = {};
  content.file = name;
}

void setContentKeepingSynced(TransferRecord& record, const TransferContent& content) {
  const int64_t synced = record.content.file == content.file ? record.content.synced : 0;
  record.content = content;
  record.content.synced = std::min(synced, content.received);
}

bool canBeContinued(const TransferContent& content) {
  const int status = content.response ? content.response->statusCode() : 0;
  if (status != 200 && status != 206) return false;
  return !content.validator.empty() || content.received == content.expected;
}

bool isCancelled(const TransferRecord& record) {
  return record.stage == TransferStage::Failed && record.error &&
         record.error->domain() == NSURLErrorDomain && record.error->code() == URLErrorCancelled;
}

TransferTaskInfo infoOf(const TransferRecord& record) {
  TransferTaskInfo info;
  info.id = record.id;
  info.request = record.request.get();
  info.description = record.description;
  info.running = record.running;
  info.stage = record.stage;
  info.cancelled = isCancelled(record);
  info.response = record.content.response;
  info.received = record.content.received;
  info.expected = record.content.expected;
  return info;
}

}  // namespace

TransferLedger::TransferLedger(std::unique_ptr<TransferStore> store, bool ephemeral)
    : store_(std::move(store)), changedSinceMs_(kNeverMs), now_([] { return int64_t{0}; }) {
  auto records = store_->load();
  std::set<PartialName> kept;
  {
    MutexLock lock(mutex_);
    mark_ = storedMark_ = store_->mark();
    for (auto& record : records) {
      bool drop = ephemeral;
      if (!drop) _reconcileWithFile(record, drop);
      auto entry = std::make_shared<Entry>();
      entry->record = std::move(record);
      entry->stored = true;
      entry->gone = drop;
      entry->factsChanged = true;
      _markChanged(entry);
      if (drop) continue;
      kept.insert(entry->record.content.file);
      entries_.emplace(entry->record.id, entry);
    }
  }
  files().removeAllBut(kept);
  std::vector<TransferEvent> none;
  commit(none);
}

TransferLedger::~TransferLedger() {
  {
    MutexLock storeLock(storeMutex_);
    retryAtMs_ = 0;
  }
  std::vector<TransferEvent> untold;
  commit(untold);
}

// The file is the truth about what was received, in the boot in which it was written; after a power
// loss only what had been flushed is.
void TransferLedger::_reconcileWithFile(TransferRecord& record, bool& drop) {
  auto& content = record.content;
  const bool sameBoot = isSameBoot(record.bootId, currentBootIdentifier());
  record.bootId.clear();
  if (!sameBoot) record.effort.retryAtBootMs = 0;

  int64_t size = -1;
  if (content.file.generation > 0) require(files().look(content.file, size), content.file);
  const int64_t trusted = sameBoot ? size : std::min(size, content.synced);
  if (record.stage == TransferStage::Finished) {
    drop = size < 0;  // moved away: it was delivered
    if (drop || trusted == content.received) return;
    record.stage = TransferStage::None;
  }
  if (size > trusted) require(files().truncate(content.file, trusted), content.file);
  const bool tooLong = content.expected >= 0 && trusted > content.expected;
  content.received = std::max<int64_t>(0, trusted);
  if (size < 0 || tooLong || !canBeContinued(content)) {
    dropContent(content);
    record.resumeToken.clear();
  }
  content.synced = std::min(content.synced, content.received);
}

// An error that says nothing about the file must not cost the task what it has.
void TransferLedger::require(int error, const PartialName& file) const {
  if (error == 0) return;
  const auto why = Error::errorWithErrno(error, "look at", files().path(file));
  throw Exception("NSURLSessionException", why->localizedDescription());
}

void TransferLedger::setNow(std::function<int64_t()> now) {
  MutexLock lock(mutex_);
  now_ = std::move(now);
}

void TransferLedger::setStoresEndingsFirst() {
  MutexLock lock(mutex_);
  storesEndingsFirst_ = true;
  for (const auto& [id, entry] : entries_)
    entry->record.request.pack();
}

int64_t TransferLedger::uncommittedSinceMs() const {
  MutexLock lock(mutex_);
  return changedSinceMs_;
}

std::vector<TransferTaskInfo> TransferLedger::tasks() const {
  MutexLock lock(mutex_);
  std::vector<TransferTaskInfo> result;
  for (const auto& [id, entry] : entries_)
    result.push_back(infoOf(entry->record));
  std::sort(result.begin(), result.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
  return result;
}

std::vector<TransferEvent> TransferLedger::heldEvents() const {
  MutexLock lock(mutex_);
  std::vector<TransferEvent> events;
  for (const auto& [id, entry] : entries_) {
    if (entry->record.stage != TransferStage::None) events.push_back(_endEvent(entry->record));
  }
  std::sort(events.begin(), events.end(),
            [](const auto& a, const auto& b) { return a.task < b.task; });
  for (auto& event : events)
    event.held = true;
  return events;
}

std::vector<TransferTaskId> TransferLedger::unfinished() const {
  MutexLock lock(mutex_);
  std::vector<TransferTaskId> result;
  for (const auto& [id, entry] : entries_) {
    if (entry->record.stage == TransferStage::None) result.push_back(id);
  }
  std::sort(result.begin(), result.end());
  return result;
}

TransferTaskId TransferLedger::nextIdentifier() {
  {
    MutexLock lock(mutex_);
    if (nextIdentifier_ < reservedEnd_) return nextIdentifier_++;
  }
  MutexLock storeLock(storeMutex_);
  MutexLock lock(mutex_);
  if (nextIdentifier_ < reservedEnd_) return nextIdentifier_++;
  // Without room for the claim the numbers go on unclaimed: storing a task claims its number, too.
  if (const TransferTaskId first = store_->reserveIdentifiers(kIdentifierBlock)) {
    nextIdentifier_ = std::max(nextIdentifier_, first);
    reservedEnd_ = first + kIdentifierBlock;
  }
  if (nextIdentifier_ == 0) nextIdentifier_ = 1;
  return nextIdentifier_++;
}

void TransferLedger::submit(const TransferBatch& batch, std::vector<TransferTaskId>& touched,
                            std::vector<TransferEvent>& events, const TransferMark* mark) {
  std::vector<PartialName> doomed;
  {
    MutexLock lock(mutex_);
    for (const auto& call : batch)
      _apply(call, touched, events);
    if (mark) {
      mark_ = *mark;
      if (changedSinceMs_ == kNeverMs) changedSinceMs_ = now_();
    }
    doomed.swap(doomed_);
  }
  for (const auto& file : doomed)
    files().remove(file);
}

TransferMark TransferLedger::storedMark() const {
  MutexLock lock(mutex_);
  return storedMark_;
}

bool TransferLedger::saveSession(const TransferOptions& options) {
  MutexLock storeLock(storeMutex_);
  return store_->saveSession(options);
}

TransferSessionRecord TransferLedger::session() {
  MutexLock storeLock(storeMutex_);
  return store_->session();
}

void TransferLedger::_apply(const TransferCall& call, std::vector<TransferTaskId>& touched,
                            std::vector<TransferEvent>& events) {
  if (call.kind == TransferCall::Kind::Create) return _create(call);
  const EntryPtr entry = _find(call.task);
  if (!entry) return;
  auto& record = entry->record;
  switch (call.kind) {
    case TransferCall::Kind::Create:
      return;
    case TransferCall::Kind::SetDescription:
      record.description = call.description;
      entry->ownChanged = true;
      break;
    case TransferCall::Kind::Resume:
    case TransferCall::Kind::Suspend:
      record.running = call.kind == TransferCall::Kind::Resume;
      entry->ownChanged = true;
      touched.push_back(record.id);
      break;
    case TransferCall::Kind::Cancel:
      _cancel(*entry, events);
      touched.push_back(record.id);
      break;
    case TransferCall::Kind::Acknowledge:
      _acknowledge(*entry);
      touched.push_back(record.id);
      break;
  }
  _markChanged(entry);
}

void TransferLedger::_create(const TransferCall& call) {
  // A service that died may be told again.
  if (entries_.contains(call.task)) return;
  auto entry = std::make_shared<Entry>();
  auto& record = entry->record;
  record.id = call.task;
  record.request = call.request;
  record.description = call.description;
  record.content.file.owner = call.task;
  if (storesEndingsFirst_) record.request.pack();
  const EntryPtr source = call.source ? _find(call.source) : nullptr;
  const bool valid = source && source->record.stage == TransferStage::Failed &&
                     !source->record.resumeToken.empty() &&
                     source->record.resumeToken == call.sourceToken;
  if (valid) {
    record.content = std::exchange(source->record.content, {});
    record.content.reportDue = false;
    source->record.resumeToken.clear();
    source->factsChanged = true;
    _markChanged(source);
  }
  entries_.emplace(record.id, entry);
  _markChanged(entry);
}

void TransferLedger::_doom(const PartialName& file) {
  if (file.generation > 0) doomed_.push_back(file);
}

// Also what finished or failed meanwhile: the application does not know of that yet, and does not
// want it. The next launch has to see it as cancelled, too.
void TransferLedger::_cancel(Entry& entry, std::vector<TransferEvent>& events) {
  auto& record = entry.record;
  if (isCancelled(record)) return;
  _doom(record.content.file);
  dropContent(record.content);
  record.resumeToken.clear();
  record.stage = TransferStage::Failed;
  record.error = urlError(URLErrorCancelled, "", urlOf(record));
  entry.factsChanged = true;
  events.push_back(_endEvent(record));
}

// Also what starts over: its file was found changed, but the front had been told its end.
void TransferLedger::_acknowledge(Entry& entry) {
  auto& record = entry.record;
  _doom(record.content.file);
  entry.gone = true;
  entries_.erase(record.id);
}

void TransferLedger::_markChanged(const EntryPtr& entry) {
  if (entry->listed) return;
  entry->listed = true;
  changed_.push_back(entry);
  if (changedSinceMs_ == kNeverMs) changedSinceMs_ = now_();
}

void TransferLedger::commit(std::vector<TransferEvent>& events) {
  MutexLock storeLock(storeMutex_);
  static_cast<void>(commitAll(events));
}

ErrorPtr TransferLedger::commitAll(std::vector<TransferEvent>& events) {
  std::vector<EntryPtr> entries;
  std::vector<TransferChange> changes;
  TransferMark mark;
  bool isNewMark = false;
  {
    MutexLock lock(mutex_);
    if (_storeRests()) {
      if (changedSinceMs_ != kNeverMs) changedSinceMs_ = retryAtMs_;
      return failure_;
    }
    changes = _collect(entries);
    mark = mark_;
    isNewMark = mark_ != storedMark_;
  }
  if (changes.empty() && !isNewMark) return nullptr;
  const auto error = write(changes, isNewMark ? &mark : nullptr);
  MutexLock lock(mutex_);
  if (error) {
    _putBack(entries, error, events);
    return error;
  }
  storedMark_ = mark;
  for (const auto& entry : entries)
    entry->stored = true;
  return nullptr;
}

std::vector<TransferChange> TransferLedger::_collect(std::vector<EntryPtr>& entries) {
  using Kind = TransferChange::Kind;
  std::vector<TransferChange> changes;
  for (auto& entry : changed_) {
    entry->listed = false;
    const bool own = std::exchange(entry->ownChanged, false);
    const bool facts = std::exchange(entry->factsChanged, false);
    // What came and went between two transactions was never there.
    if (entry->gone && !entry->stored) continue;
    if (entry->gone) {
      changes.push_back({Kind::Delete, entry->record});
    } else if (!entry->stored) {
      changes.push_back({Kind::Insert, entry->record});
    } else {
      if (own) changes.push_back({Kind::UpdateOwn, entry->record});
      if (facts) changes.push_back({Kind::UpdateFacts, entry->record});
    }
    entries.push_back(std::move(entry));
  }
  changed_.clear();
  changedSinceMs_ = kNeverMs;
  return changes;
}

ErrorPtr TransferLedger::writeSoon(const std::vector<TransferChange>& changes) {
  {
    MutexLock lock(mutex_);
    if (_storeRests()) return failure_;
  }
  return write(changes, nullptr);
}

// After a failure, for a while.
bool TransferLedger::_storeRests() const {
  return failure_ && now_() < retryAtMs_;
}

// Told when it begins to fail.
ErrorPtr TransferLedger::write(const std::vector<TransferChange>& changes,
                               const TransferMark* mark) {
  auto error = store_->apply(changes, mark);
  if (error && !failure_) logError("Session store: " + error->localizedDescription());
  failure_ = error;
  MutexLock lock(mutex_);
  retryAtMs_ = now_() + kStoreRetryMs;
  return error;
}

// Nothing was written; it can wait, whatever the reason is, while transfers go on. Only a task that
// can never be stored fails.
void TransferLedger::_putBack(const std::vector<EntryPtr>& entries, const ErrorPtr& error,
                              std::vector<TransferEvent>& events) {
  const bool refused = error->code() == TransferStore::kRefused;
  for (const auto& entry : entries) {
    auto& record = entry->record;
    entry->ownChanged = true;
    entry->factsChanged = true;
    _markChanged(entry);
    if (!refused || entry->stored || entry->gone || record.stage != TransferStage::None) continue;
    record.stage = TransferStage::Failed;
    record.error = error;
    events.push_back(_endEvent(record));
  }
  changedSinceMs_ = retryAtMs_;
}

std::optional<TransferLedger::Unfinished> TransferLedger::unfinishedTask(TransferTaskId id) const {
  MutexLock lock(mutex_);
  const EntryPtr entry = _find(id);
  if (!entry || entry->record.stage != TransferStage::None) return std::nullopt;
  const auto& record = entry->record;
  return Unfinished{record.running, record.request.get(), record.content, record.effort};
}

bool TransferLedger::setContent(TransferTaskId id, const TransferContent& content,
                                const TransferEffort& effort) {
  MutexLock lock(mutex_);
  const EntryPtr entry = _find(id);
  if (!entry || entry->record.stage != TransferStage::None) return false;
  setContentKeepingSynced(entry->record, content);
  entry->record.effort = effort;
  entry->factsChanged = true;
  _markChanged(entry);
  return true;
}

void TransferLedger::setSynced(TransferTaskId id, const PartialName& file, int64_t length) {
  MutexLock lock(mutex_);
  const EntryPtr entry = _find(id);
  if (!entry) return;
  auto& content = entry->record.content;
  // Of a file that the record does not name yet nothing is known that could be continued.
  if (content.file != file || content.synced >= length) return;
  content.synced = length;
  entry->factsChanged = true;
  _markChanged(entry);
}

int64_t TransferLedger::dropUnsynced(const PartialName& file) {
  MutexLock lock(mutex_);
  // Resume data may have moved the file to another task.
  const auto found = std::find_if(entries_.begin(), entries_.end(), [&file](const auto& entry) {
    return entry.second->record.content.file == file;
  });
  // What has finished was told so already.
  if (found == entries_.end()) return 0;
  auto& record = found->second->record;
  if (record.stage == TransferStage::Finished) return record.content.received;
  auto& content = record.content;
  if (content.synced == 0 || files().truncate(file, content.synced) != 0) {
    dropContent(content);
  } else {
    content.received = content.synced;
  }
  record.effort.furthest = std::min(record.effort.furthest, content.received);
  found->second->factsChanged = true;
  _markChanged(found->second);
  return content.received;
}

std::vector<TransferEvent> TransferLedger::end(const std::vector<Ending>& endings) {
  std::vector<TransferEvent> events;
  std::vector<TransferChange> changes;
  std::vector<EntryPtr> entries;
  MutexLock storeLock(storeMutex_);
  {
    MutexLock lock(mutex_);
    for (const auto& ending : endings) {
      const EntryPtr entry = _find(ending.id);
      if (!entry || entry->record.stage != TransferStage::None) continue;
      auto& record = entry->record;
      setContentKeepingSynced(record, ending.content);
      record.error = ending.error;
      record.stage = ending.error ? TransferStage::Failed : TransferStage::Finished;
      if (ending.resumable) record.resumeToken = makeResumeToken();
      events.push_back(_endEvent(record));
      events.back().contentHash = ending.contentHash;
      if (storesEndingsFirst_) {
        entry->factsChanged = true;
        _markChanged(entry);
      } else if (entry->stored) {
        changes.push_back({TransferChange::Kind::UpdateFacts, record});
        entries.push_back(entry);
      } else {
        _markChanged(entry);
      }
    }
  }
  const auto error = storesEndingsFirst_ ? commitAll(events) : writeSoon(changes);
  if (!error) return events;
  // Told all the same: to wait for the store would stop what does not need it.
  MutexLock lock(mutex_);
  for (const auto& entry : entries) {
    entry->factsChanged = true;
    _markChanged(entry);
  }
  return events;
}

TransferEvent TransferLedger::_endEvent(const TransferRecord& record) const {
  TransferEvent event;
  event.kind = record.stage == TransferStage::Finished ? TransferEvent::Kind::Finished
                                                       : TransferEvent::Kind::Failed;
  event.task = record.id;
  event.received = record.content.received;
  event.expected = record.content.expected;
  event.response = record.content.response;
  event.error = record.error;
  event.resumeToken = record.resumeToken;
  if (!record.error) event.path = store_->files().path(record.content.file);
  return event;
}

TransferLedger::EntryPtr TransferLedger::_find(TransferTaskId id) const {
  const auto found = entries_.find(id);
  return found == entries_.end() ? nullptr : found->second;
}

}  // namespace platform
