#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/transfer/service/ServiceConnection.h"

namespace platform {
class CurlLoop;
}

namespace platform::service {

class ServiceSession;

// The client of a started session, on the thread of the session's engine. Ends by giving the client
// back to the session.
class ServiceLine {
 public:
  ServiceLine(std::unique_ptr<ServiceConnection> connection, ServiceSession& session)
      : connection_(std::move(connection)), session_(session) {}

  void begin(CurlLoop& loop);
  // Sends what there is to tell, unless the client is being read from: then it will be sent.
  void flush();

 private:
  void ready(uint32_t events);
  void serve(uint32_t events);
  bool takeMessages(std::optional<Message>& other);
  void listen();
  void end(std::optional<Message> message);

  std::unique_ptr<ServiceConnection> connection_;
  ServiceSession& session_;
  CurlLoop* loop_ = nullptr;
  bool isReading_ = false;
};

}  // namespace platform::service
