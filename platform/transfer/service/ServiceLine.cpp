#include "platform/transfer/service/ServiceLine.h"

#include <utility>

#include <sys/epoll.h>

#include "platform/Log.h"
#include "platform/transfer/CurlLoop.h"
#include "platform/transfer/service/ServiceSession.h"

namespace platform::service {
namespace {

constexpr size_t kEventsPerMessage = 256;

}  // namespace

void ServiceLine::begin(CurlLoop& loop) {
  loop_ = &loop;
  listen();
  ready(0);
}

void ServiceLine::listen() {
  const uint32_t events = connection_->watchesOutput ? EPOLLIN | EPOLLOUT : EPOLLIN;
  loop_->watch(connection_->fd(), events, [this](uint32_t what) { ready(what); });
}

void ServiceLine::ready(uint32_t events) {
  try {
    serve(events);
  } catch (...) {
    logError("Error: A client was dropped: " + describeCurrentException());
    isReading_ = false;
    if (connection_) end(std::nullopt);
  }
}

void ServiceLine::serve(uint32_t events) {
  isReading_ = true;
  const bool isOpen = (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0 || connection_->fill();
  std::optional<Message> other;
  const bool isSane = takeMessages(other);
  isReading_ = false;
  if (other || !isOpen || !isSane) return end(std::move(other));
  flush();
}

bool ServiceLine::takeMessages(std::optional<Message>& other) {
  // The calls of one round take effect together.
  while (auto message = connection_->takeMessage()) {
    if (session_.take(*connection_, *message)) continue;
    other = std::move(message);
    break;
  }
  session_.submit(*connection_);
  return !connection_->failed();
}

void ServiceLine::flush() {
  if (isReading_ || !connection_) return;
  session_.acknowledge(*connection_);
  do {
    if (session_.hasEvents() && connection_->hasRoomForEvents()) {
      EventsMessage events{session_.takeEvents(kEventsPerMessage)};
      if (!events.events.empty()) connection_->tell(events);
    }
    connection_->flush();
  } while (session_.hasEvents() && connection_->hasRoomForEvents() && !connection_->hasOutput());
  if (connection_->watchesOutput == connection_->hasOutput()) return;
  connection_->watchesOutput = connection_->hasOutput();
  listen();
}

void ServiceLine::end(std::optional<Message> message) {
  loop_->watch(connection_->fd(), 0, nullptr);
  session_.giveBack({std::move(connection_), std::move(message)});
}

}  // namespace platform::service
