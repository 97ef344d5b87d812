#include "tests/support/FaultServer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/FaultAnswer.h"
#include "tests/support/FaultConnection.h"
#include "tests/support/TestContent.h"

namespace qntest {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPeerCheck = std::chrono::milliseconds(20);
constexpr double kForever = 3600;
constexpr uint64_t kPiece = 16 << 10;
constexpr int kBacklog = 256;
constexpr double kSwitchSeconds = 10;

std::chrono::nanoseconds inNanoseconds(double seconds) {
  return std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9));
}

int bindLoopback(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error(std::string("fault server: bind: ") + strerror(errno));
  return fd;
}

uint16_t portOf(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

// TLS writes go through write(2); the signal stays pending in the thread and ends with it.
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool parseHead(const std::string& head, FaultRequest& request) {
  const size_t lineEnd = head.find("\r\n");
  const size_t space = head.find(' ');
  const size_t second = head.find(' ', space + 1);
  if (space == std::string::npos || second == std::string::npos || second > lineEnd) return false;
  request.method = head.substr(0, space);
  request.path = head.substr(space + 1, second - space - 1);
  const size_t question = request.path.find('?');
  if (question != std::string::npos) {
    request.query = request.path.substr(question + 1);
    request.path.erase(question);
  }
  for (size_t at = lineEnd + 2; at < head.size();) {
    const size_t end = head.find("\r\n", at);
    const size_t colon = head.find(':', at);
    if (end == at || colon == std::string::npos || colon > end) break;
    const size_t value = head.find_first_not_of(' ', colon + 1);
    request.headers.emplace_back(head.substr(at, colon - at),
                                 value < end ? head.substr(value, end - value) : "");
    at = end + 2;
  }
  return true;
}

std::shared_ptr<SSL_CTX> makeContext(const FaultServer::Options& options) {
  if (options.ca == nullptr) return nullptr;
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  const TestCA::Certificate issued = options.ca->issue(options.names, options.expired);
  BIO* certBio = BIO_new_mem_buf(issued.certificatePem.data(), -1);
  BIO* keyBio = BIO_new_mem_buf(issued.keyPem.data(), -1);
  X509* cert = PEM_read_bio_X509(certBio, nullptr, nullptr, nullptr);
  EVP_PKEY* key = PEM_read_bio_PrivateKey(keyBio, nullptr, nullptr, nullptr);
  const bool ok = SSL_CTX_use_certificate(context.get(), cert) == 1 &&
                  SSL_CTX_use_PrivateKey(context.get(), key) == 1;
  X509_free(cert);
  EVP_PKEY_free(key);
  BIO_free(certBio);
  BIO_free(keyBio);
  if (!ok) throw std::runtime_error("fault server: certificate");
  return context;
}

}  // namespace

std::optional<std::string> FaultRequest::header(const std::string& name) const {
  for (const auto& [field, value] : headers)
    if (strcasecmp(field.c_str(), name.c_str()) == 0) return value;
  return std::nullopt;
}

Fault Fault::page(int status, HeaderFields headers, std::string body) {
  Fault fault;
  fault.status = status;
  fault.headers = std::move(headers);
  fault.body = std::move(body);
  return fault;
}
Fault Fault::redirect(const std::string& location, int status) {
  return page(status, {{"Location", location}}, "moved");
}
Fault Fault::reset(int64_t at) {
  Fault fault;
  fault.resetAt = at;
  return fault;
}
Fault Fault::close(int64_t at) {
  Fault fault;
  fault.closeAt = at;
  return fault;
}
Fault Fault::stall(int64_t at) {
  Fault fault;
  fault.stallAt = at;
  return fault;
}
Fault Fault::hold(int64_t at) {
  Fault fault;
  fault.holdAt = at;
  return fault;
}

struct FaultServer::Impl {
  using Logged = std::shared_ptr<FaultRequest>;  // fields of the answer guarded by the mutex
  struct Script {
    std::deque<Fault> faults;
    Fault then;
  };
  struct Worker {
    std::thread thread;
    FaultConnection* connection = nullptr;  // null once it ended
    bool done = false;
  };
  // One request and what becomes of it; of one connection's thread.
  struct Exchange {
    FaultConnection& connection;
    const Logged logged;
    std::optional<FaultResource> resource;
    Fault fault;
    FaultAnswer answer;
  };

  explicit Impl(const Options& options);
  ~Impl();

  void acceptLoop();
  void followRefusing();
  void startWorker(int fd);
  void serveConnection(uint64_t number, FaultConnection& connection);
  // These tell whether the connection may be used again.
  [[nodiscard]] bool answerRequest(FaultConnection& connection, const Logged& logged);
  [[nodiscard]] bool sendBody(Exchange& exchange);
  [[nodiscard]] bool sendSpan(Exchange& exchange, uint64_t from, uint64_t to);

  Fault faultFor(const FaultRequest& request);
  std::optional<FaultResource> resourceFor(const std::string& path) const;
  // True when the time passed; false when the client went or the server ends.
  [[nodiscard]] bool pause(FaultConnection& connection, double seconds);
  [[nodiscard]] bool hold(FaultConnection& connection, const std::string& path);
  template <class Condition>
  bool waitFor(double seconds, Condition condition) const {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, inNanoseconds(seconds), condition);
  }
  template <class Visit>
  void visitLog(const std::string& path, Visit visit) const {  // the mutex is held
    for (const Logged& request : log)
      if (path.empty() || request->path == path) visit(*request);
  }
  uint64_t sent(const std::string& path) const {  // the mutex is held
    uint64_t bytes = 0;
    visitLog(path, [&](const FaultRequest& r) { bytes += r.ofContent ? r.bodySent : 0; });
    return bytes;
  }
  size_t count(const std::string& path) const {  // the mutex is held
    size_t found = 0;
    visitLog(path, [&](const FaultRequest&) { ++found; });
    return found;
  }
  void wakeAcceptor() const {
    const uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake, &one, sizeof one);
  }
  void endConnections();

  // Constant after construction.
  std::shared_ptr<SSL_CTX> context;
  uint16_t port = 0;
  int wake = -1;
  const Clock::time_point started = Clock::now();

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  // Guarded by the mutex.
  int listener = -1;
  bool stopping = false, refusing = false;
  bool closed = false;  // follows refusing
  std::map<std::string, FaultResource> resources, prefixes;
  std::map<std::string, Script> scripts;
  std::function<Fault(const FaultRequest&)> chooser;
  std::set<std::string> released;
  std::vector<Logged> log;
  std::map<std::string, uint64_t> ordinals;
  std::map<uint64_t, Worker> workers;
  uint64_t connections = 0;
  int concurrent = 0, maximumConcurrent = 0;

  std::thread acceptor;
};

FaultServer::Impl::Impl(const Options& options)
    : context(makeContext(options)), wake(eventfd(0, EFD_CLOEXEC)) {
  listener = bindLoopback(options.port);
  port = portOf(listener);
  ::listen(listener, kBacklog);
  acceptor = std::thread([this] { acceptLoop(); });
}

FaultServer::Impl::~Impl() {
  {
    const std::lock_guard lock(mutex);
    stopping = true;
  }
  wakeAcceptor();
  endConnections();
  acceptor.join();
  for (auto& [number, worker] : workers)
    worker.thread.join();
  ::close(listener);
  ::close(wake);
}

void FaultServer::Impl::endConnections() {
  const std::lock_guard lock(mutex);
  for (auto& [number, worker] : workers)
    if (worker.connection != nullptr) worker.connection->shutDown();
  changed.notify_all();
}

void FaultServer::Impl::acceptLoop() {
  for (;;) {
    pollfd watched[2] = {{wake, POLLIN, 0}, {-1, POLLIN, 0}};
    {
      const std::lock_guard lock(mutex);
      if (stopping) return;
      followRefusing();
      if (!refusing) watched[1].fd = listener;
    }
    if (::poll(watched, 2, -1) < 0) continue;
    uint64_t wakes = 0;
    if (watched[0].revents != 0 && ::read(wake, &wakes, sizeof wakes) < 0) continue;
    const std::lock_guard lock(mutex);
    if (stopping) return;
    if (refusing || (watched[1].revents & POLLIN) == 0) continue;
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) startWorker(fd);
  }
}

// A bound socket that does not listen refuses and keeps the port. Here and not in the call, because
// a socket that is being polled stays open.
void FaultServer::Impl::followRefusing() {  // the mutex is held
  if (refusing == closed) return;
  if (refusing) {
    ::close(listener);
    listener = bindLoopback(port);
  } else {
    ::listen(listener, kBacklog);
  }
  closed = refusing;
  changed.notify_all();
}

void FaultServer::Impl::startWorker(int fd) {  // the mutex is held
  for (auto it = workers.begin(); it != workers.end();) {
    if (it->second.done) it->second.thread.join();
    it = it->second.done ? workers.erase(it) : std::next(it);
  }
  const uint64_t number = ++connections;
  auto connection = std::make_unique<FaultConnection>(fd, context.get());
  workers[number].connection = connection.get();
  workers[number].thread = std::thread([this, number, own = std::move(connection)]() mutable {
    blockBrokenPipeSignal();
    if (own->handshake()) serveConnection(number, *own);
    {
      const std::lock_guard lock(mutex);
      workers[number].connection = nullptr;
      changed.notify_all();
    }
    own.reset();
    const std::lock_guard lock(mutex);
    workers[number].done = true;
  });
}

void FaultServer::Impl::serveConnection(uint64_t number, FaultConnection& connection) {
  for (bool again = true; again;) {
    const std::string head = connection.readHead();
    auto request = std::make_shared<FaultRequest>();
    if (head.empty() || !parseHead(head, *request)) return;
    request->connection = number;
    if (const auto length = request->header("Content-Length"))
      if (!connection.discard(std::strtoull(length->c_str(), nullptr, 10))) return;
    {
      const std::lock_guard lock(mutex);
      if (stopping || refusing) return;
      request->ordinal = ordinals[request->path]++;
      request->atSeconds = std::chrono::duration<double>(Clock::now() - started).count();
      log.push_back(request);
      maximumConcurrent = std::max(maximumConcurrent, ++concurrent);
      changed.notify_all();
    }
    again = answerRequest(connection, request);
    const std::lock_guard lock(mutex);
    --concurrent;
    changed.notify_all();
    again = again && !stopping && !refusing;
  }
}

Fault FaultServer::Impl::faultFor(const FaultRequest& request) {
  std::function<Fault(const FaultRequest&)> ask;
  {
    const std::lock_guard lock(mutex);
    const auto found = scripts.find(request.path);
    if (found == scripts.end()) {
      ask = chooser;
    } else if (found->second.faults.empty()) {
      return found->second.then;
    } else {
      Fault fault = std::move(found->second.faults.front());
      found->second.faults.pop_front();
      return fault;
    }
  }
  return ask ? ask(request) : Fault{};
}

std::optional<FaultResource> FaultServer::Impl::resourceFor(const std::string& path) const {
  const std::lock_guard lock(mutex);
  const auto found = resources.find(path);
  if (found != resources.end()) return found->second;
  const FaultResource* best = nullptr;
  size_t longest = 0;
  for (const auto& [prefix, resource] : prefixes) {
    if (path.rfind(prefix, 0) != 0 || prefix.size() < longest) continue;
    best = &resource;
    longest = prefix.size();
  }
  return best != nullptr ? std::optional(*best) : std::nullopt;
}

bool FaultServer::Impl::pause(FaultConnection& connection, double seconds) {
  const auto deadline = Clock::now() + inNanoseconds(seconds);
  std::unique_lock lock(mutex);
  while (!stopping && !refusing && !connection.peerGone()) {
    const auto now = Clock::now();
    if (now >= deadline) return true;
    changed.wait_until(lock, std::min(deadline, now + kPeerCheck));
  }
  return false;
}

bool FaultServer::Impl::hold(FaultConnection& connection, const std::string& path) {
  std::unique_lock lock(mutex);
  while (!stopping && !refusing && !connection.peerGone()) {
    if (released.count(path) != 0) return true;
    changed.wait_for(lock, kPeerCheck);
  }
  return false;
}

bool FaultServer::Impl::answerRequest(FaultConnection& connection, const Logged& logged) {
  const Fault fault = faultFor(*logged);
  if (fault.delaySeconds > 0 && !pause(connection, fault.delaySeconds)) return false;
  if (fault.raw) return connection.send(*fault.raw) && false;
  if (fault.resetBeforeHead) connection.reset();
  if (fault.resetBeforeHead || fault.closeBeforeHead) return false;
  Exchange exchange{connection, logged, resourceFor(logged->path), fault, {}};
  exchange.answer =
      composeAnswer(*logged, exchange.resource ? &*exchange.resource : nullptr, exchange.fault);
  FaultAnswer& answer = exchange.answer;
  {
    const std::lock_guard lock(mutex);
    logged->status = answer.status;
    logged->bodyStart = answer.start;
    logged->ofContent = answer.ofContent;
  }
  if (!connection.send(answer.head)) return false;
  if (logged->method != "HEAD" && !sendBody(exchange)) return false;
  const std::lock_guard lock(mutex);
  logged->finished = true;
  return !answer.closes && !fault.closeAfter && fault.lengthDelta == 0;
}

bool FaultServer::Impl::sendBody(Exchange& exchange) {
  const Fault& fault = exchange.fault;
  const FaultAnswer& answer = exchange.answer;
  uint64_t at = 0;
  // The first fault that the body reaches, if any; a hold lets go and leaves the others.
  const auto reaches = [&](int64_t offset) {
    return offset >= 0 && static_cast<uint64_t>(offset) <= answer.length;
  };
  if (reaches(fault.holdAt)) {
    at = static_cast<uint64_t>(fault.holdAt);
    if (!sendSpan(exchange, 0, at) || !hold(exchange.connection, exchange.logged->path))
      return false;
  }
  for (const int64_t end : {fault.resetAt, fault.closeAt, fault.stallAt}) {
    if (!reaches(end)) continue;
    if (!sendSpan(exchange, at, static_cast<uint64_t>(end))) return false;
    if (end == fault.resetAt) exchange.connection.reset();
    if (end == fault.stallAt) return pause(exchange.connection, kForever);
    return false;
  }
  if (!sendSpan(exchange, at, answer.length)) return false;
  return !answer.chunked || exchange.connection.send("0\r\n\r\n");
}

bool FaultServer::Impl::sendSpan(Exchange& exchange, uint64_t from, uint64_t to) {
  const FaultAnswer& answer = exchange.answer;
  const double rate = exchange.fault.bytesPerSecond;
  const uint64_t piece =
      rate > 0 ? std::max<uint64_t>(1, static_cast<uint64_t>(rate / 50)) : kPiece;
  while (from < to) {
    const uint64_t count = std::min(piece, to - from);
    std::string bytes = answer.ofContent && answer.text.empty()
                            ? contentOf(exchange.logged->path, exchange.resource->version,
                                        answer.start + from, count)
                            : answer.text.substr(from, count);
    if (answer.chunked) {
      char size[32];
      snprintf(size, sizeof size, "%llx\r\n", static_cast<unsigned long long>(count));
      bytes = size + bytes + "\r\n";
    }
    if (!exchange.connection.send(bytes)) return false;
    from += count;
    {
      const std::lock_guard lock(mutex);
      exchange.logged->bodySent += count;
      changed.notify_all();
    }
    if (rate > 0 && !pause(exchange.connection, static_cast<double>(count) / rate)) return false;
  }
  return true;
}

FaultServer::FaultServer() : FaultServer(Options{}) {}
FaultServer::FaultServer(const Options& options) : impl_(std::make_unique<Impl>(options)) {}
FaultServer::~FaultServer() = default;

uint16_t FaultServer::port() const {
  return impl_->port;
}

std::string FaultServer::url(const std::string& path, const std::string& host) const {
  return (impl_->context ? "https://" : "http://") + host + ":" + std::to_string(impl_->port) +
         path;
}

void FaultServer::serve(const std::string& path, const FaultResource& resource) {
  const std::lock_guard lock(impl_->mutex);
  impl_->resources[path] = resource;
}

void FaultServer::serve(const std::string& path, uint64_t size) {
  FaultResource resource;
  resource.size = size;
  serve(path, resource);
}

void FaultServer::servePrefix(const std::string& prefix, const FaultResource& resource) {
  const std::lock_guard lock(impl_->mutex);
  impl_->prefixes[prefix] = resource;
}

void FaultServer::script(const std::string& path, std::vector<Fault> faults, const Fault& then) {
  const std::lock_guard lock(impl_->mutex);
  impl_->scripts[path] = {{faults.begin(), faults.end()}, then};
  impl_->released.erase(path);
}

void FaultServer::setChooser(std::function<Fault(const FaultRequest&)> chooser) {
  const std::lock_guard lock(impl_->mutex);
  impl_->chooser = std::move(chooser);
}

void FaultServer::release(const std::string& path) {
  const std::lock_guard lock(impl_->mutex);
  impl_->released.insert(path);
  impl_->changed.notify_all();
}

void FaultServer::setRefusing(bool refusing) {
  {
    const std::lock_guard lock(impl_->mutex);
    impl_->refusing = refusing;
  }
  impl_->wakeAcceptor();
  if (refusing) impl_->endConnections();
  impl_->waitFor(kSwitchSeconds, [&] { return impl_->closed == refusing; });
}

std::vector<FaultRequest> FaultServer::requests(const std::string& path) const {
  const std::lock_guard lock(impl_->mutex);
  std::vector<FaultRequest> found;
  impl_->visitLog(path, [&](const FaultRequest& request) { found.push_back(request); });
  return found;
}

size_t FaultServer::requestCount(const std::string& path) const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->count(path);
}

void FaultServer::clearLog() {
  const std::lock_guard lock(impl_->mutex);
  impl_->log.clear();
}

uint64_t FaultServer::bytesSent(const std::string& path) const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->sent(path);
}

uint64_t FaultServer::bytesSentAgain(const std::string& path) const {
  const std::lock_guard lock(impl_->mutex);
  std::vector<std::pair<uint64_t, uint64_t>> spans;
  uint64_t all = 0;
  impl_->visitLog(path, [&](const FaultRequest& request) {
    if (!request.ofContent || request.bodySent == 0) return;
    spans.emplace_back(request.bodyStart, request.bodyStart + request.bodySent);
    all += request.bodySent;
  });
  std::sort(spans.begin(), spans.end());
  uint64_t distinct = 0, end = 0;
  for (const auto& [from, to] : spans) {
    if (to > end) distinct += to - std::max(from, end);
    end = std::max(end, to);
  }
  return all - distinct;
}

uint64_t FaultServer::connectionCount() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->connections;
}

double FaultServer::seconds() const {
  return std::chrono::duration<double>(Clock::now() - impl_->started).count();
}

int FaultServer::maximumConcurrent() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->maximumConcurrent;
}

bool FaultServer::waitForRequests(const std::string& path, size_t count, double seconds) const {
  return impl_->waitFor(seconds, [&] { return impl_->count(path) >= count; });
}

bool FaultServer::waitForNoConnections(double seconds) const {
  return impl_->waitFor(seconds, [&] {
    pollfd waiting{impl_->listener, POLLIN, 0};  // what a dead client left there comes, too
    const bool none = ::poll(&waiting, 1, 0) <= 0 || (waiting.revents & POLLIN) == 0;
    return none &&
           std::all_of(impl_->workers.begin(), impl_->workers.end(),
                       [](const auto& worker) { return worker.second.connection == nullptr; });
  });
}

bool FaultServer::waitForSent(const std::string& path, uint64_t bytes, double seconds) const {
  return impl_->waitFor(seconds, [&] { return impl_->sent(path) >= bytes; });
}

}  // namespace qntest
