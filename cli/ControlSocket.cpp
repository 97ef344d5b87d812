#include "cli/ControlSocket.h"

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cli/Console.h"
#include "cli/Interrupt.h"
#include "platform/transfer/ThreadSetup.h"
#include "platform/transfer/TransferOptions.h"
#include "platform/transfer/service/ServiceSocket.h"

namespace cli {
namespace {

using platform::FileDescriptor;
using platform::JSON;
namespace service = platform::service;

constexpr size_t kMaximumClients = 16;
constexpr size_t kMaximumRequest = 4'096;
constexpr size_t kMaximumAnswer = 1 << 20;

std::string pathOf(const Place& place) {
  const std::string other = service::socketPath();
  return other.substr(0, other.rfind('/')) + "/qnmovie-" +
         platform::transferHash(place.storeDirectory) + ".sock";
}

}  // namespace

struct ControlServer::Client {
  std::shared_ptr<FileDescriptor> fd;
  std::string buffer;
};

ControlServer::ControlServer(const Place& place)
    : path_(pathOf(place)), stop_(::eventfd(0, EFD_CLOEXEC)) {
  std::string why = service::prepareSocketDirectory(path_);
  int error = 0;
  if (why.empty()) {
    listener_ = service::listenAt(path_, &error);
    if (!listener_) why = "Cannot listen at " + path_ + ": " + std::strerror(error);
  }
  if (!listener_) {
    Console::shared().note("status, pause, resume and cancel cannot reach this process: " + why);
    return;
  }
  thread_ = platform::startThread("qn-control", [this] { _run(); });
}

ControlServer::~ControlServer() {
  if (!thread_.joinable()) return;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(stop_.get(), &one, sizeof one);
  thread_.join();
  // Before the session is given up: the name cannot be another holder's yet.
  ::unlink(path_.c_str());
}

void ControlServer::_run() {
  for (;;) {
    std::vector<pollfd> waiting{{stop_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    for (const Client& client : clients_)
      waiting.push_back({client.fd->get(), POLLIN, 0});
    if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) return;
    if (waiting[0].revents != 0) return;
    auto entry = waiting.begin() + 2;
    for (auto client = clients_.begin(); client != clients_.end(); ++entry) {
      const bool keep = entry->revents == 0 || _read(*client);
      client = keep ? std::next(client) : clients_.erase(client);
    }
    if (waiting[1].revents != 0) _accept();
  }
}

void ControlServer::_accept() {
  FileDescriptor fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd || !service::peerIsThisUser(fd.get()) || clients_.size() >= kMaximumClients) return;
  clients_.push_back({std::make_shared<FileDescriptor>(std::move(fd)), {}});
}

// False when the client is done with.
bool ControlServer::_read(Client& client) {
  char bytes[1024];
  const ssize_t count = ::recv(client.fd->get(), bytes, sizeof bytes, 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  if (count == 0) return false;
  client.buffer.append(bytes, static_cast<size_t>(count));
  _take(client);
  return client.buffer.size() <= kMaximumRequest;
}

void ControlServer::_take(Client& client) {
  for (size_t end; (end = client.buffer.find('\n')) != std::string::npos;) {
    const auto json = JSON::parse(std::string_view(client.buffer).substr(0, end));
    client.buffer.erase(0, end + 1);
    const JSON* command = json ? json->find("command") : nullptr;
    const platform::MutexLock lock(mutex_);
    if (requests_.size() >= 4 * kMaximumClients) return;
    requests_.push_back({client.fd, command ? command->string().value_or("") : ""});
    Interrupt::wake();
  }
}

void ControlServer::answer(const Handler& handler) {
  std::list<Request> requests;
  {
    const platform::MutexLock lock(mutex_);
    requests.swap(requests_);
  }
  for (const Request& request : requests) {
    const std::string line = handler(request.command).dump() + "\n";
    // Whoever does not read what it asked for loses the answer, and nobody waits for it.
    [[maybe_unused]] const ssize_t sent =
        ::send(request.client->get(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }
}

std::optional<ControlClient> ControlClient::connect(const Place& place) {
  const std::string path = pathOf(place);
  if (!service::prepareSocketDirectory(path).empty()) return std::nullopt;
  int error = 0;
  FileDescriptor fd = service::connectTo(path, &error);
  if (!fd || !service::peerIsThisUser(fd.get())) return std::nullopt;
  return ControlClient(std::move(fd));
}

pid_t ControlClient::process() const {
  return service::peerProcess(fd_.get());
}

std::optional<JSON> ControlClient::ask(const std::string& command, int timeoutMs) {
  JSON request = JSON::object();
  request.set("command", command);
  const std::string line = request.dump() + "\n";
  if (!service::sendAll(fd_.get(), line.data(), line.size())) return std::nullopt;
  std::string answer;
  while (answer.size() < kMaximumAnswer) {
    char byte = 0;
    if (!service::receiveAll(fd_.get(), &byte, 1, timeoutMs)) return std::nullopt;
    if (byte == '\n') return JSON::parse(answer);
    answer.push_back(byte);
  }
  return std::nullopt;
}

}  // namespace cli
