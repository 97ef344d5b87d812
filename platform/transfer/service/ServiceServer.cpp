#include "platform/transfer/service/ServiceServer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/transfer/TransferClock.h"
#include "platform/transfer/TransferEngine.h"
#include "platform/transfer/TransferOptions.h"
#include "platform/transfer/service/ServiceLauncher.h"

namespace platform::service {
namespace {

constexpr size_t kTasksPerMessage = 1'024;

}  // namespace

ServiceServer::ServiceServer(FileDescriptor listener, ServiceOptions options)
    : options_(std::move(options)),
      registry_(options_.registryDirectory),
      listener_(std::move(listener)),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wakeup_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGCHLD})
    sigaddset(&set, signal);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_.reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  for (const int fd : {listener_.get(), wakeup_.get(), signals_.get()})
    watch(fd, EPOLLIN, true);
}

ServiceServer::~ServiceServer() = default;

int64_t ServiceServer::nowMs() {
  return TransferClock::systemClock().nowMs();
}

void ServiceServer::watch(int fd, uint32_t events, bool add) {
  epoll_event event = {};
  event.events = events;
  event.data.fd = fd;
  ::epoll_ctl(epoll_.get(), add ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event);
}

void ServiceServer::run() {
  if (!registry_.load().empty()) recoverAtMs_ = nowMs() + options_.recoverAfterMs;
  epoll_event events[64];
  while (!leaving_) {
    const int count = ::epoll_wait(epoll_.get(), events, 64, timeoutMs(nowMs()));
    for (int i = 0; i < count && !leaving_; ++i)
      handle(events[i].data.fd, events[i].events);
    collect();
    const int64_t now = nowMs();
    if (recoverAtMs_ >= 0 && now >= recoverAtMs_) recover();
    launchWhatIsDue(now);
    dropIdleSessions();
    timeoutMs(now);  // whoever came in this round is served
    if (idleSinceMs_ >= 0 && now - idleSinceMs_ >= options_.idleMs) leaving_ = true;
  }
  for (auto& [key, slot] : slots_) {
    slot.session->close();
    slot.session->save();
  }
}

// -1: until something happens.
int ServiceServer::timeoutMs(int64_t nowMs) {
  const bool idle = connections_.empty() && slots_.empty() && recoverAtMs_ < 0;
  idleSinceMs_ = !idle ? -1 : idleSinceMs_ >= 0 ? idleSinceMs_ : nowMs;
  int64_t next = kNeverMs;
  if (idle) next = idleSinceMs_ + options_.idleMs;
  if (recoverAtMs_ >= 0) next = std::min(next, recoverAtMs_);
  for (const auto& [key, slot] : slots_) {
    if (slot.launchAtMs >= 0) next = std::min(next, slot.launchAtMs);
  }
  if (next == kNeverMs) return -1;
  return static_cast<int>(std::clamp<int64_t>(next - nowMs, 0, 3'600'000));
}

void ServiceServer::handle(int fd, uint32_t events) {
  if (fd == listener_.get()) return accept();
  if (fd == signals_.get()) return readSignals();
  if (fd == wakeup_.get()) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(fd, &count, sizeof(count));
    return;
  }
  try {
    serve(fd, events);
  } catch (...) {
    // Of this client: the others are none the worse for it.
    logError("Error: A client was dropped: " + describeCurrentException());
    drop(fd);
  }
}

void ServiceServer::serve(int fd, uint32_t events) {
  const auto found = connections_.find(fd);
  if (found == connections_.end()) return;
  if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    readConnection(*found->second);
  } else {
    flush(*found->second);
  }
}

void ServiceServer::accept() {
  FileDescriptor fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd || !peerIsThisUser(fd.get())) return;
  const int number = fd.get();
  connections_[number] = std::make_unique<ServiceConnection>(std::move(fd));
  watch(number, EPOLLIN, true);
}

void ServiceServer::readSignals() {
  signalfd_siginfo info = {};
  while (::read(signals_.get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
    if (info.ssi_signo == SIGCHLD) {
      reapChildren();
    } else {
      leaving_ = true;
    }
  }
}

void ServiceServer::reapChildren() {
  for (pid_t process = 0; (process = ::waitpid(-1, nullptr, WNOHANG)) > 0;) {
    for (auto& [key, slot] : slots_) {
      if (slot.launched != process) continue;
      slot.launched = 0;
      considerLaunch(slot);
    }
  }
}

void ServiceServer::readConnection(ServiceConnection& connection) {
  const bool open = connection.fill();
  const bool sane = takeMessages(connection);
  if (!open || !sane) {
    drop(connection.fd());
  } else {
    flush(connection);
    if (connection.started) handOver(connection);
  }
}

bool ServiceServer::takeMessages(ServiceConnection& connection) {
  if (!connection.greeted()) {
    if (const auto hello = connection.takeHello()) takeHello(connection, *hello);
    return !connection.failed();
  }
  bool sane = true;
  while (sane && !connection.started) {
    auto message = connection.takeMessage();
    if (!message) break;
    sane = takeMessage(connection, std::move(*message));
  }
  if (Slot* slot = slotOf(connection)) slot->session->submit(connection);
  return sane && !connection.failed();
}

void ServiceServer::takeHello(ServiceConnection& connection, const Hello& hello) {
  const bool quit = hello.kind == Hello::Kind::Quit && hello.version > options_.version;
  const auto kind = quit ? Hello::Kind::Leaving : Hello::Kind::Welcome;
  connection.answer(Hello{kind, options_.version, static_cast<uint32_t>(::getpid())}.encode());
  leaving_ = leaving_ || quit;
}

ServiceServer::Slot* ServiceServer::slotOf(const ServiceConnection& connection) {
  const auto found = slots_.find(connection.sessionKey);
  return found != slots_.end() && found->second.connection == connection.fd() ? &found->second
                                                                              : nullptr;
}

bool ServiceServer::takeMessage(ServiceConnection& connection, Message&& message) {
  if (const auto* opening = std::get_if<OpenMessage>(&message)) {
    if (!connection.sessionKey.empty()) return false;
    open(connection, *opening);
    return true;
  }
  Slot* slot = slotOf(connection);
  if (!slot) return false;
  if (slot->session->take(connection, message)) return true;
  slot->session->submit(connection);
  if (const auto* start = std::get_if<StartMessage>(&message)) {
    connection.lastNumber = std::max(connection.lastNumber, start->number);
    connection.started = true;
    connection.answer(StartedMessage{start->number, slot->session->attach()});
  } else if (const auto* bye = std::get_if<GoodbyeMessage>(&message)) {
    // Whoever leaves repeats nothing: without a word he waits for a moment, and goes.
    if (slot->session->commit()) connection.answer(DoneMessage{bye->number});
    goodbye(connection);
  } else {
    return false;
  }
  return true;
}

void ServiceServer::handOver(ServiceConnection& connection) {
  const auto found = connections_.find(connection.fd());
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->first, nullptr);
  slotOf(connection)->session->talk(std::move(found->second));
  connections_.erase(found);
}

// It left, or said what concerns more than its session.
void ServiceServer::takeBack(ServiceSession::Returned returned) {
  ServiceConnection& connection = *returned.connection;
  const int fd = connection.fd();
  connection.started = false;
  connections_[fd] = std::move(returned.connection);
  watch(fd, connection.watchesOutput ? EPOLLIN | EPOLLOUT : EPOLLIN, true);
  const bool sane = returned.message && takeMessage(connection, *std::move(returned.message)) &&
                    takeMessages(connection);
  if (!sane) return drop(fd);
  flush(connection);
  if (connection.started) handOver(connection);
}

ServiceServer::Slot& ServiceServer::openSlot(const SessionRecord& record,
                                             const std::optional<TransferOptions>& options,
                                             bool ephemeral) {
  const auto configuration = record.configuration();
  const std::string key = SessionRegistry::keyOf(configuration);
  const auto found = slots_.find(key);
  if (found != slots_.end() && !ephemeral && (!options || found->second.session->adopt(*options)))
    return found->second;
  Slot slot;
  SessionRecord known = record;
  if (found != slots_.end()) {
    // The partial files are there for the next engine.
    slot = std::move(found->second);
    known = slot.session->record();
    slots_.erase(found);
    slot.session.reset();
  } else if (auto stored = registry_.find(key)) {
    known.wantsToRun = stored->wantsToRun;
    known.launches = stored->launches;
  }
  const int wakeup = wakeup_.get();
  auto engine = std::make_unique<TransferEngine>(TransferLocation::fromConfiguration(configuration),
                                                 options, ephemeral);
  slot.session =
      std::make_unique<ServiceSession>(registry_, std::move(known), std::move(engine), [wakeup] {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(wakeup, &one, sizeof(one));
      });
  return slots_[key] = std::move(slot);
}

void ServiceServer::open(ServiceConnection& connection, const OpenMessage& message) {
  OpenedMessage answer{
      .number = message.number, .refusal = {}, .held = false, .more = false, .tasks = {}};
  const std::string key = SessionRegistry::keyOf(message.configuration);
  const auto known = slots_.find(key);
  if (known != slots_.end() && known->second.connection >= 0) {
    answer.refusal = "The session " + message.configuration.identifier + " is held by process " +
                     std::to_string(known->second.holder);
    answer.held = true;
    return connection.answer(answer);
  }
  try {
    const auto& c = message.configuration;
    Slot& slot = openSlot({c.identifier, c.stateDirectory, c.partialDirectory, false, 0},
                          TransferOptions::fromConfiguration(c), c.ephemeral && !message.again);
    // Whoever was not started by this service came by hand.
    if (slot.launched == 0 || ::getsid(connection.process()) != slot.launched)
      slot.session->setLaunches(0);
    slot.launchAtMs = -1;
    slot.connection = connection.fd();
    slot.holder = connection.process();
    connection.sessionKey = key;
    slot.session->open(message.front);
    if (!message.again) slot.session->settleDelivered();
    answer.tasks = slot.session->tasks();
    slot.session->save();
  } catch (const Exception& failure) {
    answer.refusal = failure.reason();
    answer.held = failure.userInfo().count(QNURLSessionHolderKey) != 0;
  } catch (const std::exception& failure) {
    answer.refusal = failure.what();
  }
  std::vector<TransferTaskInfo> tasks = std::move(answer.tasks);
  for (size_t first = 0;; first += kTasksPerMessage) {
    const size_t end = std::min(tasks.size(), first + kTasksPerMessage);
    answer.more = end < tasks.size();
    answer.tasks.assign(tasks.begin() + static_cast<ptrdiff_t>(first),
                        tasks.begin() + static_cast<ptrdiff_t>(end));
    connection.answer(answer);
    if (!answer.more) return;
  }
}

void ServiceServer::goodbye(ServiceConnection& connection) {
  Slot* slot = slotOf(connection);
  if (!slot) return;
  slot->connection = -1;
  slot->session->detach();
  slot->session->setLaunches(0);
  // Nobody is to be started until an application was here again and left without a word.
  slot->session->setWantsToRun(false);
  slot->session->forgetLaunchCommand();
  slot->session->save();
}

void ServiceServer::drop(int fd) {
  const auto found = connections_.find(fd);
  if (found == connections_.end()) return;
  Slot* slot = slotOf(*found->second);
  connections_.erase(found);
  if (!slot) return;
  slot->connection = -1;
  slot->session->detach();
  // Also an application that only asked for its tasks gets them transferred.
  slot->session->start();
  considerLaunch(*slot);
}

void ServiceServer::collect() {
  for (auto& [key, slot] : slots_) {
    if (auto returned = slot.session->takeReturned(); returned.connection) {
      const int fd = returned.connection->fd();
      try {
        takeBack(std::move(returned));
      } catch (...) {
        logError("Error: A client was dropped: " + describeCurrentException());
        drop(fd);
      }
    }
    if (slot.connection >= 0) continue;
    slot.session->collect();
    considerLaunch(slot);
  }
}

void ServiceServer::flush(ServiceConnection& connection) {
  connection.flush();
  if (connection.watchesOutput == connection.hasOutput()) return;
  connection.watchesOutput = connection.hasOutput();
  watch(connection.fd(), connection.watchesOutput ? EPOLLIN | EPOLLOUT : EPOLLIN, false);
}

void ServiceServer::recover() {
  recoverAtMs_ = -1;
  for (const SessionRecord& record : registry_.load()) {
    if (slots_.contains(SessionRegistry::keyOf(record.configuration()))) continue;
    try {
      openSlot(record, std::nullopt, false).session->start();
    } catch (const std::exception& failure) {
      logError(std::string("Error: ") + failure.what());
    }
  }
}

void ServiceServer::considerLaunch(Slot& slot) {
  if (slot.connection >= 0 || slot.launched != 0 || slot.launchAtMs >= 0) return;
  if (!slot.session->launchCommand() || slot.session->record().launches >= options_.maximumLaunches)
    return;
  if (!slot.session->hasEndings() && !slot.session->isStranded()) return;
  slot.launchAtMs = nowMs() + (options_.launchDelayMs << slot.session->record().launches);
}

void ServiceServer::launchWhatIsDue(int64_t now) {
  for (auto& [key, slot] : slots_) {
    if (slot.launchAtMs < 0 || slot.launchAtMs > now) continue;
    slot.launchAtMs = -1;
    slot.session->setLaunches(slot.session->record().launches + 1);
    slot.session->save();
    const std::string& identifier = slot.session->record().identifier;
    int error = 0;
    slot.launched = startLaunchCommand(*slot.session->launchCommand(), identifier, &error);
    if (slot.launched != 0) continue;
    logError("Error: cannot start the command of session " + identifier + ": " +
             std::to_string(error));
    considerLaunch(slot);
  }
}

void ServiceServer::dropIdleSessions() {
  for (auto found = slots_.begin(); found != slots_.end();) {
    Slot& slot = found->second;
    const bool needed = slot.connection >= 0 || slot.session->isBusy() || slot.launchAtMs >= 0 ||
                        slot.launched != 0;
    if (needed) {
      ++found;
      continue;
    }
    // What still waits is in the store, for whoever opens it next.
    if (!slot.session->hasEndings() && !slot.session->isStranded()) registry_.remove(found->first);
    slot.session->close();
    found = slots_.erase(found);
  }
}

}  // namespace platform::service
