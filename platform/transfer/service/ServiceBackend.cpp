#include "platform/transfer/service/ServiceBackend.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/transfer/ThreadSetup.h"
#include "platform/transfer/TransferClock.h"
#include "platform/transfer/TransferErrors.h"
#include "platform/transfer/TransferOptions.h"
#include "platform/transfer/service/FrameReader.h"
#include "platform/transfer/service/ServiceSocket.h"

namespace platform::service {
namespace {

constexpr const char* kSessionException = "NSURLSessionException";
constexpr uint32_t kReserved = 512;
constexpr int kAnswerTimeoutMs = 10'000;
constexpr int kOpenTimeoutMs = 30'000;
constexpr int kGoodbyeTimeoutMs = 2'000;
constexpr auto kHeldTimeout = std::chrono::seconds(3);
constexpr auto kHeldPause = std::chrono::milliseconds(50);
constexpr size_t kCallsPerMessage = 4'096;

uint64_t drawNumber() {
  uint64_t number = 0;
  if (::getrandom(&number, sizeof number, 0) != sizeof number)
    number = static_cast<uint64_t>(::getpid()) ^
             static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  return number | 1;
}

std::string absolutePath(const std::string& path) {
  return path.empty() ? path : std::filesystem::absolute(path).lexically_normal().string();
}

// With everything filled in that this process knows and the service cannot: where relative paths
// begin, and defaults.
URLSessionConfiguration completed(URLSessionConfiguration configuration) {
  const TransferOptions options = TransferOptions::fromConfiguration(configuration);
  configuration.stateDirectory = absolutePath(stateRoot(configuration));
  configuration.partialDirectory = absolutePath(configuration.partialDirectory);
  configuration.maximumConnectionsPerHost = options.connectionsPerHost;
  configuration.maximumTransfers = options.transfers;
  configuration.maximumBytesPerSecond = options.bytesPerSecond;
  configuration.connectTimeoutSeconds = static_cast<double>(options.connectTimeoutMs) / 1000;
  configuration.stallTimeoutSeconds = static_cast<double>(options.stallTimeoutMs) / 1000;
  configuration.retryBoundSeconds = static_cast<double>(options.retryBoundMs) / 1000;
  configuration.diskFullBoundSeconds = static_cast<double>(options.diskFullBoundMs) / 1000;
  configuration.caFile = absolutePath(options.caFile);
  return configuration;
}

// The first frames after the hello, read by hand: no reader runs yet.
std::optional<Message> receiveMessage(int fd) {
  FrameReader frames;
  for (;;) {
    if (auto body = frames.next()) return decodeMessage(*body);
    pollfd waiting{fd, POLLIN, 0};
    const bool ready = ::poll(&waiting, 1, kOpenTimeoutMs) > 0;
    if (!ready || frames.failed() || !frames.fill(fd, frames.missing())) return std::nullopt;
  }
}

}  // namespace

ServiceBackend::ServiceBackend(const URLSessionConfiguration& configuration)
    : configuration_(completed(configuration)),
      place_(ServicePlace::fromEnvironment()),
      front_(drawNumber()),
      shift_([this] { wake(); }),
      wakeup_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  std::vector<TransferTaskInfo> tasks;
  std::string refusal;
  bool held = false;
  FileDescriptor fd = connectAndOpen(false, tasks, refusal, held);
  if (!fd) {
    Dictionary info;
    if (held) info[QNURLSessionHolderKey] = std::string("another process");
    throw Exception(kSessionException, refusal, std::move(info));
  }
  MutexLock sendLock(sendMutex_);
  MutexLock lock(mutex_);
  for (const auto& task : tasks)
    known_.insert(task.id);
  tasks_ = std::move(tasks);
  sendFd_ = fd.get();
  fd_ = std::move(fd);
  ++connections_;
  reader_ = startThread("qn-service", [this] { run(); });
}

ServiceBackend::~ServiceBackend() {
  close();
}

FileDescriptor ServiceBackend::connectAndOpen(bool again, std::vector<TransferTaskInfo>& tasks,
                                              std::string& refusal, bool& held) {
  // Another holder may be about to go, and a service that died is replaced.
  const auto deadline = std::chrono::steady_clock::now() + kHeldTimeout;
  for (;;) {
    held = false;
    bool gone = false;
    tasks.clear();
    FileDescriptor fd = connectAndOpenOnce(again, tasks, refusal, held, gone);
    if (fd || (!held && !gone) || std::chrono::steady_clock::now() >= deadline) return fd;
    std::this_thread::sleep_for(kHeldPause);
  }
}

FileDescriptor ServiceBackend::connectAndOpenOnce(bool again, std::vector<TransferTaskInfo>& tasks,
                                                  std::string& refusal, bool& held, bool& gone) {
  FileDescriptor fd = connectToService(place_, refusal);
  if (!fd) return {};
  const std::string frame = encodeFrame(
      OpenMessage{.number = 0, .configuration = configuration_, .again = again, .front = front_});
  bool more = sendAll(fd.get(), frame.data(), frame.size());
  refusal = "The transfer service ended the connection";
  gone = true;  // unless it says something
  while (more) {
    const auto message = receiveMessage(fd.get());
    gone = !message;
    const auto* opened = message ? std::get_if<OpenedMessage>(&*message) : nullptr;
    if (!opened || !opened->refusal.empty()) {
      if (message) refusal = opened ? opened->refusal : "The transfer service gave no answer";
      held = opened && opened->held;
      return {};
    }
    tasks.insert(tasks.end(), opened->tasks.begin(), opened->tasks.end());
    more = opened->more;
    if (!more) return fd;
  }
  return {};
}

std::vector<TransferTaskInfo> ServiceBackend::tasks() {
  MutexLock lock(mutex_);
  return std::exchange(tasks_, {});
}

template <class Answer, class Request>
Answer ServiceBackend::ask(Request request, int timeoutMs) {
  uint64_t number = 0;
  {
    MutexLock sendLock(sendMutex_);
    number = request.number = ++lastNumber_;
    {
      MutexLock lock(mutex_);
      asked_.insert(number);
    }
    send(number, encodeFrame(request), {});
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  MutexLock lock(mutex_);
  while (!closed_ && !answers_.contains(number) &&
         changed_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) {
  }
  asked_.erase(number);  // what comes later is for nobody
  auto found = answers_.extract(number);
  auto* answer = found ? std::get_if<Answer>(&found.mapped()) : nullptr;
  return answer ? std::move(*answer) : Answer{};
}

size_t ServiceBackend::start(Sink sink) {
  {
    MutexLock lock(mutex_);
    if (started_ || closed_) return 0;
    started_ = true;
    sink_ = std::move(sink);
  }
  return ask<StartedMessage>(StartMessage{}, kAnswerTimeoutMs).heldEvents;
}

TransferTaskId ServiceBackend::nextIdentifier() {
  bool asksAhead = false;
  TransferTaskId next = 0;
  {
    MutexLock lock(mutex_);
    if (nextReserved_ == reservedEnd_ && reservedAhead_ != 0) {
      nextReserved_ = std::exchange(reservedAhead_, 0);
      reservedEnd_ = nextReserved_ + kReserved;
    }
    if (nextReserved_ < reservedEnd_) next = nextReserved_++;
    // In time: nobody has to wait for the answer.
    asksAhead = next != 0 && reservedEnd_ - nextReserved_ == kReserved / 2 && reservedAhead_ == 0 &&
                reserving_ == 0;
  }
  if (asksAhead) {
    MutexLock sendLock(sendMutex_);
    const uint64_t number = ++lastNumber_;
    {
      MutexLock lock(mutex_);
      reserving_ = number;
    }
    send(number, encodeFrame(ReserveMessage{.number = number, .count = kReserved}), {});
  }
  if (next != 0) return next;
  const auto reserved =
      ask<ReservedMessage>(ReserveMessage{.number = 0, .count = kReserved}, kAnswerTimeoutMs);
  MutexLock lock(mutex_);
  // Without a service or room in its store: a number that no store gave out, so that the task can
  // be made and fail.
  static constexpr TransferTaskId kUnstored = TransferTaskId{1} << 62;
  if (nextReserved_ == reservedEnd_) {
    nextReserved_ =
        reserved.first ? reserved.first : kUnstored + (TransferClock::systemClock().bootMs() << 10);
    reservedEnd_ = nextReserved_ + kReserved;
  }
  return nextReserved_++;
}

void ServiceBackend::submit(const TransferBatch& batch, Durability durability) {
  if (batch.empty()) return;
  MutexLock sendLock(sendMutex_);
  for (size_t first = 0; first < batch.size(); first += kCallsPerMessage) {
    const size_t end = std::min(batch.size(), first + kCallsPerMessage);
    BatchMessage message;
    message.calls.assign(batch.begin() + static_cast<ptrdiff_t>(first),
                         batch.begin() + static_cast<ptrdiff_t>(end));
    std::vector<TransferTaskId> created;
    {
      MutexLock lock(mutex_);
      for (const TransferCall& call : message.calls) {
        if (call.kind == TransferCall::Kind::Create) {
          known_.insert(call.task);
          created.push_back(call.task);
        } else if (call.kind == TransferCall::Kind::Acknowledge) {
          known_.erase(call.task);
          toldEndings_.erase(call.task);
        }
      }
    }
    message.now = durability == Durability::Now;
    message.more = end < batch.size();
    message.number = ++lastNumber_;
    const uint64_t number = message.number;
    send(number, encodeFrame(message), std::move(created));
  }
}

void ServiceBackend::send(uint64_t number, std::string frame, std::vector<TransferTaskId> created) {
  {
    MutexLock lock(mutex_);
    unanswered_.push_back(Numbered{number, frame, std::move(created)});
  }
  _send(frame);
}

void ServiceBackend::_send(const std::string& frame) {
  // A failure shows itself to the reader, which connects again and repeats what was not answered.
  if (sendFd_ >= 0 && !sendAll(sendFd_, frame.data(), frame.size())) sendFd_ = -1;
}

int64_t ServiceBackend::millisecondsUntil(int64_t timeMs) const {
  return std::max<int64_t>(0, timeMs - TransferClock::systemClock().nowMs());
}

// --- Reading ------------------------------------------------------------------------------------

void ServiceBackend::run() {
  while (shift_.hostWaits()) {
    {
      MutexLock turn(turn_);
      while (connected_.load() && !shift_.guestIsHere())
        static_cast<void>(readRound(false));
    }
    if (!connected_.load() && !reconnect()) return;
  }
}

bool ServiceBackend::work() {
  if (!connected_.load() || !shift_.guestComes()) return false;
  const LoopShift::Visit visit(shift_);
  MutexLock turn(turn_);
  bool told = false;
  while (!told && connected_.load() && !workEnds_.load())
    told = readRound(true);
  workEnds_.store(false);
  return true;
}

void ServiceBackend::endWork() {
  workEnds_.store(true);
  if (waits_.load()) wake();
}

void ServiceBackend::wake() const {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(wakeup_.get(), &one, sizeof one);
}

bool ServiceBackend::readRound(bool isGuest) {
  int fd = -1;
  {
    MutexLock lock(mutex_);
    fd = fd_.get();
  }
  pollfd waiting[] = {{fd, POLLIN, 0}, {wakeup_.get(), POLLIN, 0}};
  // Whoever ends the work looks whether there is a wait after having said so: one of the two sees
  // it.
  waits_.store(true);
  const bool ends = isGuest ? workEnds_.load() : shift_.guestIsHere();
  const int ready = ends ? 0 : ::poll(waiting, 2, -1);
  waits_.store(false);
  if (ready <= 0) return false;
  if (waiting[1].revents != 0) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(wakeup_.get(), &count, sizeof count);
  }
  if (waiting[0].revents == 0) return false;
  bool told = false;
  bool sane = false;
  try {
    sane = takeMessages(fd, told);
  } catch (...) {
    // What it held is said again on the next connection.
    logError("The transfer service's messages: " + describeCurrentException());
  }
  if (!sane) connected_.store(false);
  return told;
}

// False when the connection is of no use any more.
bool ServiceBackend::takeMessages(int fd, bool& told) {
  bool sane = frames_.fill(fd, 64 << 10);
  while (auto body = sane ? frames_.next() : std::nullopt) {
    auto message = decodeMessage(*body);
    sane = message.has_value();
    if (message && take(std::move(*message))) told = true;
  }
  return sane && !frames_.failed();
}

bool ServiceBackend::take(Message&& message) {
  if (auto* events = std::get_if<EventsMessage>(&message))
    return takeEvents(std::move(events->events));
  const uint64_t number = std::visit(
      [](const auto& m) -> uint64_t {
        if constexpr (requires { m.number; }) return m.number;
        return 0;
      },
      message);
  MutexLock lock(mutex_);
  const bool done = std::holds_alternative<DoneMessage>(message);
  // What is durable settles all before it, too. Any other answer is given at once, and overtakes
  // the batches before it: it settles its own request alone.
  while (done && !unanswered_.empty() && unanswered_.front().number <= number)
    unanswered_.pop_front();
  if (done) lastDone_ = std::max(lastDone_, number);
  if (!done) std::erase_if(unanswered_, [number](const auto& m) { return m.number == number; });
  if (const auto* reserved = std::get_if<ReservedMessage>(&message);
      reserved && number == reserving_) {
    reserving_ = 0;
    reservedAhead_ = reserved->first;
    return false;
  }
  if (!done && asked_.contains(number)) answers_.insert_or_assign(number, std::move(message));
  changed_.notify_all();
  return false;
}

bool ServiceBackend::takeEvents(std::vector<TransferEvent>&& events) {
  Sink sink;
  {
    MutexLock lock(mutex_);
    sink = sink_;
    std::erase_if(events, [this](TransferEvent& event) REQUIRES(mutex_) {
      if (_isOld(event)) return true;
      if (event.kind == TransferEvent::Kind::Finished || event.kind == TransferEvent::Kind::Failed)
        toldEndings_.insert(event.task);
      // A new service counts responses from the start.
      event.responseNumber += connections_ << 40;
      return false;
    });
  }
  if (!sink || events.empty()) return false;
  sink(std::move(events));
  return true;
}

// Of a task that was acknowledged while the service was away, or whose end was told before.
bool ServiceBackend::_isOld(const TransferEvent& event) const {
  return !known_.contains(event.task) || toldEndings_.contains(event.task);
}

bool ServiceBackend::reconnect() {
  int delayMs = 50;
  for (;;) {
    {
      MutexLock sendLock(sendMutex_);
      sendFd_ = -1;
    }
    {
      MutexLock lock(mutex_);
      if (closed_) return false;
      fd_.reset();
    }
    std::vector<TransferTaskInfo> tasks;
    std::string refusal;
    bool held = false;
    if (FileDescriptor fd = connectAndOpen(true, tasks, refusal, held)) {
      resume(std::move(fd), tasks);
      return true;
    }
    MutexLock lock(mutex_);
    changed_.wait_for(mutex_, std::chrono::milliseconds(delayMs));
    delayMs = std::min(delayMs * 2, 5'000);
  }
}

void ServiceBackend::resume(FileDescriptor fd, const std::vector<TransferTaskInfo>& tasks) {
  std::vector<TransferEvent> lost;
  Sink sink;
  MutexLock turn(turn_);
  frames_ = {};
  {
    MutexLock sendLock(sendMutex_);
    std::deque<Numbered> again;
    bool started = false;
    {
      MutexLock lock(mutex_);
      again = unanswered_;
      started = started_;
      sink = sink_;
      lost = _lostTasks(tasks);
      sendFd_ = fd.get();
      fd_ = std::move(fd);
      ++connections_;
    }
    for (const Numbered& message : again)
      _send(message.frame);
    // Only now: nothing is transferred or told before what was repeated has taken effect.
    if (started) _send(encodeFrame(StartMessage{.number = 0}));
  }
  connected_.store(true);
  if (sink && !lost.empty()) sink(std::move(lost));
}

std::vector<TransferEvent> ServiceBackend::_lostTasks(const std::vector<TransferTaskInfo>& tasks) {
  std::unordered_set<TransferTaskId> there;
  for (const auto& task : tasks)
    there.insert(task.id);
  for (const auto& message : unanswered_)
    there.insert(message.created.begin(), message.created.end());
  std::vector<TransferEvent> lost;
  for (const TransferTaskId id : known_) {
    if (there.contains(id) || toldEndings_.contains(id)) continue;
    TransferEvent event;
    event.kind = TransferEvent::Kind::Failed;
    event.task = id;
    event.error = urlError(URLErrorNetworkConnectionLost, "the transfer service lost the task", {});
    lost.push_back(std::move(event));
  }
  for (const auto& event : lost)
    toldEndings_.insert(event.task);
  return lost;
}

void ServiceBackend::close() {
  {
    MutexLock lock(mutex_);
    if (closed_) return;
  }
  uint64_t number = 0;
  {
    MutexLock sendLock(sendMutex_);
    number = ++lastNumber_;
    send(number, encodeFrame(GoodbyeMessage{.number = number}), {});
  }
  {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kGoodbyeTimeoutMs);
    MutexLock lock(mutex_);
    while (lastDone_ < number && fd_ &&
           changed_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) {
    }
    closed_ = true;
    sink_ = nullptr;
    if (fd_) ::shutdown(fd_.get(), SHUT_RDWR);
    changed_.notify_all();
  }
  shift_.close();
  wake();
  if (reader_.joinable()) reader_.join();
}

}  // namespace platform::service
