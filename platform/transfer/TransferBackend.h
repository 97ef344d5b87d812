#pragma once

#include <functional>
#include <vector>

#include "platform/transfer/TransferTypes.h"

namespace platform {

// What stands behind a session's front: the engine in this process, or one that is reached through
// a socket. Thread-safe.
class TransferBackend {
 public:
  // Called on a thread of the backend's, or inside submit(); does not block and makes no call.
  using Sink = std::function<void(std::vector<TransferEvent>&&)>;

  virtual ~TransferBackend();

  // The tasks, from the store.
  virtual std::vector<TransferTaskInfo> tasks() = 0;
  // Before the first task is made or asked for nothing is transferred or told; from now on it is,
  // beginning with the events that are held. Returns how many those are. Once.
  virtual size_t start(Sink sink) = 0;
  // Never used before and never again.
  virtual TransferTaskId nextIdentifier() = 0;

  enum class Durability {
    Now,   // when the call returns
    Soon,  // within some milliseconds, as a whole, and before anything that is submitted later
  };
  virtual void submit(const TransferBatch& batch, Durability durability) = 0;

  // Lends the calling thread to the backend, which works on it until it has told something or
  // endWork() was called. False when it has no use for it. One thread, the one that takes what is
  // told, so that nothing has to be handed over; a backend works also while that stays away.
  [[nodiscard]] virtual bool work() { return false; }
  // Ends a work(), this one or the next. Any thread, also inside a Sink.
  virtual void endWork() {}

  // Milliseconds until a time that an event named, at least 0.
  virtual int64_t millisecondsUntil(int64_t timeMs) const = 0;
  // Stops transfers and stores what is known; no event comes after that. Any thread but the
  // backend's own.
  virtual void close() = 0;
};

}  // namespace platform
