#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/URLSession.h"
#include "platform/transfer/TransferTypes.h"

// What a library and its service say to each other, once both have said hello (ServiceSocket.h). A
// message is a frame: a 32-bit length and that many bytes, the first of which says its kind.
// Requests of a client carry a number; their answers repeat it. Events are not numbered: what a
// client has not acknowledged is told again when it attaches again.
namespace platform::service {

// Counts up whenever a message changes. The hello before it never changes.
inline constexpr uint32_t kProtocolVersion = 3;
// A longer frame ends the connection.
inline constexpr uint32_t kMaximumFrame = 16u << 20;

// ---- client to service

// The first message: the session that the connection is for.
struct OpenMessage {
  uint64_t number = 0;
  URLSessionConfiguration configuration;  // with its directories made absolute
  bool again = false;  // after the service died: the client knows the tasks already
  uint64_t front = 0;  // drawn once by each client: its batches take effect once
};
// Deliver events from now on.
struct StartMessage {
  uint64_t number = 0;
};
struct ReserveMessage {
  uint64_t number = 0;
  uint32_t count = 0;
};
// Answered once it is durable, soon; or at once.
struct BatchMessage {
  uint64_t number = 0;
  TransferBatch calls;
  bool now = false;
  bool more = false;  // takes effect together with the next one
};
// The client leaves on purpose: nobody starts it again.
struct GoodbyeMessage {
  uint64_t number = 0;
};

// ---- service to client

struct OpenedMessage {
  uint64_t number = 0;
  std::string refusal;  // empty: the session is open
  bool held = false;    // refused because another application has it
  bool more = false;    // another one with more tasks follows
  std::vector<TransferTaskInfo> tasks;
};
struct StartedMessage {
  uint64_t number = 0;
  uint64_t heldEvents = 0;
};
struct ReservedMessage {
  uint64_t number = 0;
  uint64_t first = 0;  // 0: none could be had
};
// The only answer that says something of batches: others are given at once.
struct DoneMessage {
  uint64_t number = 0;  // this one and all before it are durable
};
struct EventsMessage {
  std::vector<TransferEvent> events;
};

using Message =
    std::variant<OpenMessage, StartMessage, ReserveMessage, BatchMessage, GoodbyeMessage,
                 OpenedMessage, StartedMessage, ReservedMessage, DoneMessage, EventsMessage>;

// The frame, length included.
std::string encodeFrame(const Message& message);
// Of a frame without its length; nullopt when it is malformed in any way, also when something is
// left over.
std::optional<Message> decodeMessage(std::string_view body);

}  // namespace platform::service
