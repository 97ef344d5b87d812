#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/Mutex.h"
#include "platform/transfer/TransferStore.h"

namespace platform {

// The tasks of one session and their durability. Memory is what counts; what changed is written to
// the store together, one transaction for many changes, always up to a point between two batches:
// what is stored is the state of some instant. A file is offered only once the store knows that it
// is whole, or while the store does not know the task at all. Thread-safe.
class TransferLedger {
 public:
  // Loads the tasks, looks at their files and brings both together. Ephemeral: removes them all.
  // Throws as TransferStore does.
  TransferLedger(std::unique_ptr<TransferStore> store, bool ephemeral);
  ~TransferLedger();  // commits

  PartialFiles& files() const { return store_->files(); }
  bool stateWasLost() const { return store_->stateWasLost(); }

  std::vector<TransferTaskInfo> tasks() const;
  // Finished and failed ones that were not acknowledged, as events.
  std::vector<TransferEvent> heldEvents() const;
  std::vector<TransferTaskId> unfinished() const;
  TransferTaskId nextIdentifier();

  // Takes a batch over. Tasks whose course may have to change are appended to `touched`, what is to
  // be told to `events`. A mark is stored together with the batch.
  void submit(const TransferBatch& batch, std::vector<TransferTaskId>& touched,
              std::vector<TransferEvent>& events, const TransferMark* mark = nullptr);
  TransferMark storedMark() const;
  // For a front that may outlive this process: an ending is told only when it is stored, so that
  // its file is there, too, for the next one. No requests are held as objects.
  void setStoresEndingsFirst();
  [[nodiscard]] bool saveSession(const TransferOptions& options);
  TransferSessionRecord session();
  // Writes whatever is not written, but leaves a store that fails alone for a second. A task that
  // can never be stored fails: its event is appended.
  void commit(std::vector<TransferEvent>& events);
  // When the oldest unwritten change was made, on the caller's clock; kNeverMs when all is written.
  int64_t uncommittedSinceMs() const;
  void setNow(std::function<int64_t()> now);

  // The transfer's side. A task that is gone or has ended is skipped: false.
  struct Unfinished {
    bool running = false;
    URLRequestPtr request;
    TransferContent content;
    TransferEffort effort;
  };
  std::optional<Unfinished> unfinishedTask(TransferTaskId id) const;
  [[nodiscard]] bool setContent(TransferTaskId id, const TransferContent& content,
                                const TransferEffort& effort);
  // The first `length` bytes of the file have reached the disk; what the transfer tells of its
  // content leaves that alone.
  void setSynced(TransferTaskId id, const PartialName& file, int64_t length);
  // Bytes of the file were lost on their way to the disk, nobody can say which: only the synced
  // ones stay, in the file and in the record that names it. Returns how many. What writes to the
  // file has to have ended.
  int64_t dropUnsynced(const PartialName& file);
  struct Ending {
    TransferTaskId id = 0;
    TransferContent content;
    ErrorPtr error;          // null: the file is whole
    bool resumable = false;  // a failed one's content can be continued
    std::optional<uint64_t> contentHash = std::nullopt;
  };
  // Marks the tasks and stores that at once, those that the store knows. Returns the events.
  std::vector<TransferEvent> end(const std::vector<Ending>& endings);

 private:
  struct Entry {
    TransferRecord record;
    bool stored = false;
    bool ownChanged = false;
    bool factsChanged = false;
    bool listed = false;  // in changed_
    bool gone = false;
  };
  using EntryPtr = std::shared_ptr<Entry>;

  void _adopt(TransferRecord record) REQUIRES(mutex_);
  void require(int error, const PartialName& file) const;
  void _reconcileWithFile(TransferRecord& record, bool& drop) REQUIRES(mutex_);
  void _apply(const TransferCall& call, std::vector<TransferTaskId>& touched,
              std::vector<TransferEvent>& events) REQUIRES(mutex_);
  void _create(const TransferCall& call) REQUIRES(mutex_);
  void _doom(const PartialName& file) REQUIRES(mutex_);
  void _cancel(Entry& entry, std::vector<TransferEvent>& events) REQUIRES(mutex_);
  void _acknowledge(Entry& entry) REQUIRES(mutex_);
  void _markChanged(const EntryPtr& entry) REQUIRES(mutex_);
  bool _storeRests() const REQUIRES(storeMutex_, mutex_);
  [[nodiscard]] ErrorPtr write(const std::vector<TransferChange>& changes, const TransferMark* mark)
      REQUIRES(storeMutex_);
  [[nodiscard]] ErrorPtr writeSoon(const std::vector<TransferChange>& changes)
      REQUIRES(storeMutex_);
  [[nodiscard]] ErrorPtr commitAll(std::vector<TransferEvent>& events) REQUIRES(storeMutex_);
  std::vector<TransferChange> _collect(std::vector<EntryPtr>& entries) REQUIRES(mutex_);
  void _putBack(const std::vector<EntryPtr>& entries, const ErrorPtr& error,
                std::vector<TransferEvent>& events) REQUIRES(storeMutex_, mutex_);
  TransferEvent _endEvent(const TransferRecord& record) const REQUIRES(mutex_);
  EntryPtr _find(TransferTaskId id) const REQUIRES(mutex_);

  // Serialises transactions; taken before mutex_.
  Mutex storeMutex_;
  const std::unique_ptr<TransferStore> store_;  // guarded by storeMutex_ after construction
  bool storesEndingsFirst_ = false;             // constant after construction
  ErrorPtr failure_ GUARDED_BY(storeMutex_);    // of the last transaction
  int64_t retryAtMs_ GUARDED_BY(storeMutex_) = 0;

  mutable Mutex mutex_;
  std::unordered_map<TransferTaskId, EntryPtr> entries_ GUARDED_BY(mutex_);
  std::vector<EntryPtr> changed_ GUARDED_BY(mutex_);
  std::vector<PartialName> doomed_ GUARDED_BY(mutex_);  // to be removed outside the lock
  int64_t changedSinceMs_ GUARDED_BY(mutex_);
  TransferMark mark_ GUARDED_BY(mutex_);
  TransferMark storedMark_ GUARDED_BY(mutex_);
  std::function<int64_t()> now_ GUARDED_BY(mutex_);
  TransferTaskId nextIdentifier_ GUARDED_BY(mutex_) = 0;
  TransferTaskId reservedEnd_ GUARDED_BY(mutex_) = 0;
};

}  // namespace platform
