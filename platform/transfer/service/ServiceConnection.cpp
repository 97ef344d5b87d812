#include "platform/transfer/service/ServiceConnection.h"

#include <algorithm>
#include <cerrno>

#include <sys/socket.h>

namespace platform::service {

bool ServiceConnection::fill() {
  if (greeted_) return frames_.fill(fd_.get(), 64 << 10);
  char bytes[Hello::kSize];
  const ssize_t got = ::recv(fd_.get(), bytes, Hello::kSize - helloBytes_.size(), 0);
  if (got > 0) helloBytes_.append(bytes, static_cast<size_t>(got));
  return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

std::optional<Hello> ServiceConnection::takeHello() {
  if (greeted_ || helloBytes_.size() < Hello::kSize) return std::nullopt;
  greeted_ = true;
  auto hello = Hello::decode(helloBytes_);
  failed_ = !hello;
  return hello;
}

std::optional<Message> ServiceConnection::takeMessage() {
  const auto body = frames_.next();
  if (!body) {
    failed_ = failed_ || frames_.failed();
    return std::nullopt;
  }
  auto message = decodeMessage(*body);
  failed_ = !message;
  return message;
}

void ServiceConnection::flush() {
  for (;;) {
    if (deaf_) {
      answers_.clear();
      events_.clear();
    }
    if (sending_.empty()) {
      // Together: the client wakes up once.
      sending_.swap(answers_);
      if (sending_.empty()) {
        sending_.swap(events_);
      } else {
        sending_ += events_;
        events_.clear();
      }
      sent_ = 0;
      if (sending_.empty()) return;
    }
    const ssize_t sent =
        ::send(fd_.get(), sending_.data() + sent_, sending_.size() - sent_, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      deaf_ = true;
      sending_.clear();
      continue;
    }
    sent_ += static_cast<size_t>(sent);
    if (sent_ == sending_.size()) sending_.clear();
  }
}

}  // namespace platform::service
