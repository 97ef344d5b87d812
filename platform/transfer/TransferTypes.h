#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"
#include "platform/URLSession.h"

// What passes between a session's front (the objects that the application holds) and the engine
// that transfers. Plain values, so that they can as well pass through a socket.
namespace platform {

using TransferTaskId = uint64_t;
using HTTPResponsePtr = std::shared_ptr<const HTTPURLResponse>;

// How far a task has come; a task whose last event was acknowledged does not exist any more.
enum class TransferStage : int {
  None = 0,      // to be transferred
  Finished = 1,  // the file is whole and waits to be offered
  Failed = 2,    // the error waits to be told
};

// A task as the engine knows it when a front attaches.
struct TransferTaskInfo {
  TransferTaskId id = 0;
  URLRequestPtr request;
  std::optional<std::string> description;
  bool running = false;  // the application wants it to transfer
  TransferStage stage = TransferStage::None;
  bool cancelled = false;  // by the application, which was not told of the end yet
  HTTPResponsePtr response;
  int64_t received = 0;
  int64_t expected = URLSessionTransferSizeUnknown;
};

// A call of the application's. Calls of one batch take effect together and in order.
struct TransferCall {
  enum class Kind {
    Create,          // `task` with `request`, suspended; or from what the failed task `source` left
    SetDescription,  // to `description`
    Resume,
    Suspend,
    Cancel,       // its content is dropped, it ends with URLErrorCancelled; also when it had
                  // finished or failed meanwhile
    Acknowledge,  // its last event was delivered: the task and what is left of it are removed
  };
  Kind kind = Kind::Create;
  TransferTaskId task = 0;
  URLRequestPtr request;
  TransferTaskId source = 0;
  std::string sourceToken;
  std::optional<std::string> description;
};
using TransferBatch = std::vector<TransferCall>;

// What the engine tells. For each task at most one Finished or Failed, which is told again to the
// next front until it was acknowledged.
struct TransferEvent {
  enum class Kind {
    Progress,  // counts, and the response when it is a new one
    Waiting,   // the wait reason changed
    Finished,  // the file `path` is whole
    Failed,    // with `error`
  };
  Kind kind = Kind::Progress;
  TransferTaskId task = 0;
  int64_t received = 0;
  int64_t expected = URLSessionTransferSizeUnknown;
  // Counts up with each response; bytes before `base` came with an earlier one that it continues.
  uint64_t responseNumber = 0;
  int64_t base = 0;
  HTTPResponsePtr response;
  URLSessionTaskWaitReason wait;
  int64_t retryAtMs = 0;  // on the engine's clock
  std::string path;
  std::optional<uint64_t> contentHash;  // of the finished file, when its bytes passed in one piece
  ErrorPtr error;
  std::string resumeToken;  // of a failed task whose content can be continued
  bool held = false;        // from before the front was there
};

}  // namespace platform
