#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

#include "platform/FileDescriptor.h"
#include "platform/transfer/service/FrameReader.h"
#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/ServiceSocket.h"

namespace platform::service {

// One client of the service, on a socket that does not block. Answers go before events, and events
// are taken only while little waits to be sent: a client that never reads costs a bounded amount.
class ServiceConnection {
 public:
  explicit ServiceConnection(FileDescriptor fd)
      : fd_(std::move(fd)), process_(peerProcess(fd_.get())) {}

  int fd() const { return fd_.get(); }
  pid_t process() const { return process_; }

  // Reads once. False at the end of the connection.
  [[nodiscard]] bool fill();
  // The hello, when it is whole and was not taken yet; a malformed one fails the connection.
  std::optional<Hello> takeHello();
  bool greeted() const { return greeted_; }
  // nullopt with failed() false: none is whole yet.
  std::optional<Message> takeMessage();
  bool failed() const { return failed_; }

  void answer(const std::string& bytes) { answers_ += bytes; }
  void answer(const Message& message) { answers_ += encodeFrame(message); }
  bool hasRoomForEvents() const { return !deaf_ && events_.size() < kEventsAhead; }
  void tell(const Message& message) { events_ += encodeFrame(message); }

  // Sends what the socket takes. To a client that is gone nothing; what it said before it went is
  // still in the socket and counts, so that only the reader finds the end.
  void flush();
  bool hasOutput() const { return !sending_.empty() || !answers_.empty() || !events_.empty(); }

  std::string sessionKey;  // empty until a session was opened
  bool started = false;    // the session is to have it
  bool watchesOutput = false;

  // What the client said and has not taken effect yet.
  TransferBatch calls;
  bool callsAreWhole = true;
  bool callsAreUrgent = false;
  uint64_t lastNumber = 0;    // of its messages
  uint64_t acknowledged = 0;  // of those, said to be durable

 private:
  static constexpr size_t kEventsAhead = 256 << 10;

  FileDescriptor fd_;
  pid_t process_;
  std::string helloBytes_;
  bool greeted_ = false;
  bool failed_ = false;
  bool deaf_ = false;
  FrameReader frames_;
  std::string sending_;  // one run of whole frames, of which `sent_` bytes are gone
  size_t sent_ = 0;
  std::string answers_;
  std::string events_;
};

}  // namespace platform::service
