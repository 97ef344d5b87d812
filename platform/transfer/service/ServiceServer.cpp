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

constexpr size_t kEventsPerMessage = 256;
constexpr size_t kTasksPerMessage = 1'024;

// Directories and the CA come from the client, which filled everything in.
std::unique_ptr<TransferBackend> makeBackend(const URLSessionConfiguration& configuration,
                                             bool fresh) {
  return std::make_unique<TransferEngine>(TransferLocation::fromConfiguration(configuration),
                                          TransferOptions::fromConfiguration(configuration),
                                          configuration.ephemeral && fresh);
}

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
    deliverEvents();
    const int64_t now = nowMs();
    if (recoverAtMs_ >= 0 && now >= recoverAtMs_) recover();
    launchWhatIsDue(now);
    dropIdleSessions();
    timeoutMs(now);  // whoever came in this round is served
    if (idleSinceMs_ >= 0 && now - idleSinceMs_ >= options_.idleMs) leaving_ = true;
  }
  for (auto& [key, slot] : slots_) {
    save(slot);
    slot.session->close();
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
  }
}

bool ServiceServer::takeMessages(ServiceConnection& connection) {
  if (!connection.greeted()) {
    if (const auto hello = connection.takeHello()) takeHello(connection, *hello);
    return !connection.failed();
  }
  // The calls of one round take effect together.
  TransferBatch calls;
  bool sane = true;
  while (sane) {
    auto message = connection.takeMessage();
    if (!message) break;
    sane = takeMessage(connection, std::move(*message), calls);
  }
  submit(connection, calls);
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

bool ServiceServer::takeMessage(ServiceConnection& connection, Message&& message,
                                TransferBatch& calls) {
  if (const auto* opening = std::get_if<OpenMessage>(&message)) {
    if (!connection.sessionKey.empty()) return false;
    open(connection, *opening);
    return true;
  }
  Slot* slot = slotOf(connection);
  if (!slot) return false;
  if (auto* batch = std::get_if<BatchMessage>(&message)) {
    std::move(batch->calls.begin(), batch->calls.end(), std::back_inserter(calls));
    connection.lastNumber = batch->number;
    return true;
  }
  submit(connection, calls);
  if (const auto* start = std::get_if<StartMessage>(&message)) {
    connection.started = true;
    connection.answer(StartedMessage{start->number, slot->session->attach()});
  } else if (const auto* reserve = std::get_if<ReserveMessage>(&message)) {
    if (reserve->count > 65'536) return false;
    connection.answer(ReservedMessage{reserve->number, slot->session->reserve(reserve->count)});
  } else if (const auto* bye = std::get_if<GoodbyeMessage>(&message)) {
    goodbye(connection);
    connection.answer(DoneMessage{bye->number});
  } else {
    return false;
  }
  return true;
}

void ServiceServer::submit(ServiceConnection& connection, TransferBatch& calls) {
  Slot* slot = slotOf(connection);
  if (calls.empty() || !slot) return;
  if (slot->launches > 0 && std::any_of(calls.begin(), calls.end(), [](const TransferCall& call) {
        return call.kind == TransferCall::Kind::Acknowledge;
      })) {
    slot->launches = 0;
  }
  slot->session->submit(calls);
  calls.clear();
  save(*slot);
  connection.answer(DoneMessage{connection.lastNumber});
}

ServiceServer::Slot& ServiceServer::openSlot(const std::string& key,
                                             const URLSessionConfiguration& configuration,
                                             bool fresh) {
  if (fresh && configuration.ephemeral) slots_.erase(key);
  const auto found = slots_.find(key);
  if (found != slots_.end()) return found->second;
  const int wakeup = wakeup_.get();
  auto session =
      std::make_unique<ServiceSession>(configuration, makeBackend(configuration, fresh), [wakeup] {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(wakeup, &one, sizeof(one));
      });
  Slot& slot = slots_[key];
  slot.session = std::move(session);
  return slot;
}

void ServiceServer::open(ServiceConnection& connection, const OpenMessage& message) {
  OpenedMessage answer{
      .number = message.number, .refusal = {}, .held = false, .more = false, .tasks = {}};
  const std::string key = SessionRegistry::keyOf(message.configuration);
  const auto known = slots_.find(key);
  if (known != slots_.end() && known->second.connection >= 0) {
    const auto& holder = connections_[known->second.connection];
    answer.refusal = "The session " + message.configuration.identifier + " is held by process " +
                     std::to_string(holder->process());
    answer.held = true;
    return connection.answer(answer);
  }
  const bool wasKnown = known != slots_.end();
  try {
    Slot& slot = openSlot(key, message.configuration, !message.again);
    slot.session->setConfiguration(message.configuration);
    for (const SessionRecord& record : registry_.load()) {
      if (wasKnown || SessionRegistry::keyOf(record.configuration) != key) continue;
      slot.session->setWantsToRun(record.wantsToRun);
      slot.launches = record.launches;
    }
    // Whoever was not started by this service came by hand.
    if (slot.launched == 0 || ::getsid(connection.process()) != slot.launched) slot.launches = 0;
    slot.launchAtMs = -1;
    slot.connection = connection.fd();
    connection.sessionKey = key;
    if (!message.again) {
      slot.session->forgetProgress();
      slot.session->settleDelivered();
    }
    answer.tasks = slot.session->tasks();
    save(slot);
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
  slot->launches = 0;
  // Nobody is to be started until an application was here again and left without a word.
  slot->session->setWantsToRun(false);
  auto configuration = slot->session->configuration();
  configuration.launchCommand.reset();
  slot->session->setConfiguration(std::move(configuration));
  save(*slot);
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

void ServiceServer::deliverEvents() {
  for (auto& [key, slot] : slots_) {
    slot.session->collect();
    if (slot.connection < 0) {
      considerLaunch(slot);
      continue;
    }
    ServiceConnection& connection = *connections_[slot.connection];
    if (connection.started) flush(connection);
  }
}

void ServiceServer::flush(ServiceConnection& connection) {
  Slot* slot = slotOf(connection);
  for (;;) {
    if (slot && connection.started && connection.hasRoomForEvents()) {
      EventsMessage events{slot->session->take(kEventsPerMessage)};
      if (!events.events.empty()) connection.tell(events);
    }
    connection.flush();
    const bool moreEvents = slot && connection.started && connection.hasRoomForEvents() &&
                            !connection.hasOutput() && slot->session->collect();
    if (!moreEvents) break;
  }
  if (connection.watchesOutput == connection.hasOutput()) return;
  connection.watchesOutput = connection.hasOutput();
  watch(connection.fd(), connection.watchesOutput ? EPOLLIN | EPOLLOUT : EPOLLIN, false);
}

void ServiceServer::recover() {
  recoverAtMs_ = -1;
  for (const SessionRecord& record : registry_.load()) {
    const std::string key = SessionRegistry::keyOf(record.configuration);
    if (slots_.contains(key)) continue;
    try {
      Slot& slot = openSlot(key, record.configuration, false);
      slot.session->setWantsToRun(record.wantsToRun);
      slot.launches = record.launches;
      slot.saved = record;
      slot.isSaved = true;
      slot.session->start();
    } catch (const std::exception& failure) {
      logError(std::string("Error: ") + failure.what());
    }
  }
}

void ServiceServer::considerLaunch(Slot& slot) {
  if (slot.connection >= 0 || slot.launched != 0 || slot.launchAtMs >= 0) return;
  if (!slot.session->configuration().launchCommand || slot.launches >= options_.maximumLaunches)
    return;
  if (!slot.session->hasEndings() && !slot.session->isStranded()) return;
  slot.launchAtMs = nowMs() + (options_.launchDelayMs << slot.launches);
}

void ServiceServer::launchWhatIsDue(int64_t now) {
  for (auto& [key, slot] : slots_) {
    if (slot.launchAtMs < 0 || slot.launchAtMs > now) continue;
    slot.launchAtMs = -1;
    ++slot.launches;
    save(slot);
    const auto& configuration = slot.session->configuration();
    int error = 0;
    slot.launched =
        startLaunchCommand(*configuration.launchCommand, configuration.identifier, &error);
    if (slot.launched != 0) continue;
    logError("Error: cannot start the command of session " + configuration.identifier + ": " +
             std::to_string(error));
    considerLaunch(slot);
  }
}

void ServiceServer::save(Slot& slot) {
  SessionRecord record{slot.session->configuration(), slot.session->wantsToRun(), slot.launches};
  const auto& old = slot.saved;
  if (slot.isSaved && old.wantsToRun == record.wantsToRun && old.launches == record.launches &&
      old.configuration.launchCommand == record.configuration.launchCommand) {
    return;
  }
  registry_.save(record);
  slot.saved = std::move(record);
  slot.isSaved = true;
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
