#include "platform/NetworkManagerMonitor.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <map>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "platform/Log.h"
#include "platform/Mutex.h"

namespace platform {
namespace {

constexpr const char* kService = "org.freedesktop.NetworkManager";
constexpr const char* kPath = "/org/freedesktop/NetworkManager";
constexpr const char* kInterface = "org.freedesktop.NetworkManager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr uint64_t kCallMicroseconds = 2'000'000;
constexpr std::chrono::seconds kFirstAnswer{2};

// NetworkManager's own numbers: NMState, NMConnectivityState, NMMetered.
enum State : uint32_t { StateUnknown = 0, StateConnectedLocal = 50 };
enum Connectivity : uint32_t { ConnectivityUnknown = 0, ConnectivityPortal = 2 };
enum Metered : uint32_t { MeteredUnknown = 0, MeteredYes = 1, MeteredGuessYes = 3 };

struct Properties {
  uint32_t state = StateUnknown;
  uint32_t connectivity = ConnectivityUnknown;
  uint32_t metered = MeteredUnknown;

  NetworkStatus status() const {
    NetworkStatus result;
    const bool connected = state == StateUnknown || state >= StateConnectedLocal;
    result.reachable = connected && connectivity != ConnectivityPortal;
    result.metered = metered == MeteredYes || metered == MeteredGuessYes;
    return result;
  }

  uint32_t* named(std::string_view name) {
    if (name == "State") return &state;
    if (name == "Connectivity") return &connectivity;
    if (name == "Metered") return &metered;
    return nullptr;
  }
};

struct Release {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, Release>;
using Slot = std::unique_ptr<sd_bus_slot, Release>;
using Message = std::unique_ptr<sd_bus_message, Release>;

// One variant of a property, into `value` when it is the number that is expected there.
int readVariant(sd_bus_message* message, uint32_t* value) {
  char type = 0;
  const char* contents = nullptr;
  const int peeked = sd_bus_message_peek_type(message, &type, &contents);
  if (peeked < 0) return peeked;
  const bool isNumber = contents && std::string_view(contents) == "u";
  if (!value || !isNumber) return sd_bus_message_skip(message, "v");
  return sd_bus_message_read(message, "v", "u", value);
}

// An a{sv}; properties that it does not name keep their values. Negative on a malformed message.
int readProperties(sd_bus_message* message, Properties& properties) {
  int result = sd_bus_message_enter_container(message, 'a', "{sv}");
  if (result < 0) return result;
  while ((result = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
    const char* name = nullptr;
    if ((result = sd_bus_message_read(message, "s", &name)) < 0) return result;
    if ((result = readVariant(message, properties.named(name))) < 0) return result;
    if ((result = sd_bus_message_exit_container(message)) < 0) return result;
  }
  return result < 0 ? result : sd_bus_message_exit_container(message);
}

// The connection to the bus; lives on the monitor's thread alone.
class Connection {
 public:
  explicit Connection(std::function<void(NetworkStatus)> report) : report_(std::move(report)) {}

  // False when there is no bus, or it went away.
  bool open() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) return false;
    bus_.reset(bus);
    return _match(ownerSlot_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                  "org.freedesktop.DBus", "NameOwnerChanged", &Connection::_ownerChanged) &&
           _match(changeSlot_, kService, kPath, kProperties, "PropertiesChanged",
                  &Connection::_propertiesChanged) &&
           _fetch();
  }

  // Handles all that has arrived; false when the bus went away.
  bool process() {
    int result = 0;
    while ((result = sd_bus_process(bus_.get(), nullptr)) > 0) {
    }
    return result >= 0;
  }

  // Sleeps until there is something to process or `wakeUp` is readable; false for the latter.
  bool wait(int wakeUp) {
    std::array<pollfd, 2> files{{{wakeUp, POLLIN, 0}, {sd_bus_get_fd(bus_.get()), 0, 0}}};
    const int events = sd_bus_get_events(bus_.get());
    files[1].events = static_cast<short>(events < 0 ? 0 : events);
    uint64_t until = UINT64_MAX;
    sd_bus_get_timeout(bus_.get(), &until);
    poll(files.data(), files.size(), _millisecondsTo(until));  // EINTR: the caller comes again
    return files[0].revents == 0;
  }

 private:
  // Only while a call is under way there is a time to wake up at.
  static int _millisecondsTo(uint64_t until) {
    if (until == UINT64_MAX) return -1;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t passed =
        static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    if (passed >= until) return 0;
    return static_cast<int>(std::min<uint64_t>((until - passed + 999) / 1000, INT32_MAX));
  }

  bool _match(Slot& kept, const char* sender, const char* path, const char* interface,
              const char* member, sd_bus_message_handler_t handler) {
    sd_bus_slot* slot = nullptr;
    const int result = sd_bus_match_signal_async(bus_.get(), &slot, sender, path, interface, member,
                                                 handler, nullptr, this);
    kept.reset(slot);
    return result >= 0;
  }

  // Asks for everything; an earlier question that is still open is forgotten.
  bool _fetch() {
    callSlot_.reset();
    sd_bus_message* made = nullptr;
    int result =
        sd_bus_message_new_method_call(bus_.get(), &made, kService, kPath, kProperties, "GetAll");
    const Message message(made);
    if (result < 0) return false;
    sd_bus_message_set_auto_start(made, 0);  // asking must not start it
    if (sd_bus_message_append(made, "s", kInterface) < 0) return false;
    sd_bus_slot* slot = nullptr;
    result =
        sd_bus_call_async(bus_.get(), &slot, made, &Connection::_fetched, this, kCallMicroseconds);
    callSlot_.reset(slot);
    return result >= 0;
  }

  void _tell(const Properties& properties) {
    properties_ = properties;
    report_(properties_.status());
  }

  static int _fetched(sd_bus_message* message, void* self, sd_bus_error*) {
    auto& connection = *static_cast<Connection*>(self);
    Properties properties;
    const bool failed = sd_bus_message_is_method_error(message, nullptr) > 0 ||
                        readProperties(message, properties) < 0;
    connection._tell(failed ? Properties() : properties);
    return 0;
  }

  static int _propertiesChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    auto& connection = *static_cast<Connection*>(self);
    const char* interface = nullptr;
    if (sd_bus_message_read(message, "s", &interface) < 0) return 0;
    if (std::string_view(interface) != kInterface) return 0;
    Properties properties = connection.properties_;
    if (readProperties(message, properties) < 0) return 0;
    connection._tell(properties);
    // What is only said to have changed has to be asked for.
    if (sd_bus_message_enter_container(message, 'a', "s") > 0 &&
        sd_bus_message_at_end(message, 0) == 0) {
      connection._fetch();
    }
    return 0;
  }

  static int _ownerChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    auto& connection = *static_cast<Connection*>(self);
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &now) < 0) return 0;
    if (std::string_view(name) != kService) return 0;
    connection.callSlot_.reset();
    if (*now == '\0') {
      connection._tell(Properties());
    } else {
      connection._fetch();
    }
    return 0;
  }

  const std::function<void(NetworkStatus)> report_;
  Properties properties_;
  Bus bus_;  // outlives its slots
  Slot ownerSlot_;
  Slot changeSlot_;
  Slot callSlot_;
};

}  // namespace

// What the monitor and its thread share; it outlives the monitor when that is destroyed by one of
// its own watchers.
class NetworkManagerMonitor::Core : public std::enable_shared_from_this<Core> {
 public:
  Core() : stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  NetworkStatus status() {
    MutexLock lock(mutex_);
    _start();
    std::unique_lock<std::mutex> native(mutex_.native(), std::adopt_lock);
    const auto deadline = std::chrono::steady_clock::now() + kFirstAnswer;
    while (!answered_ && !gaveUp_) {
      if (told_.wait_until(native, deadline) == std::cv_status::timeout) gaveUp_ = true;
    }
    native.release();
    return status_;
  }

  Watcher addWatcher(std::function<void()> changed) {
    auto shared = std::make_shared<const std::function<void()>>(std::move(changed));
    MutexLock lock(mutex_);
    // Without a bus the thread has ended: the next status() starts another.
    if (started_ && !running_) started_ = answered_ = gaveUp_ = false;
    const Watcher watcher = ++lastWatcher_;
    watchers_.emplace(watcher, std::move(shared));
    return watcher;
  }

  void removeWatcher(Watcher watcher) {
    std::shared_ptr<const std::function<void()>> removed;  // destroyed without the lock
    MutexLock lock(mutex_);
    const auto found = watchers_.find(watcher);
    if (found == watchers_.end()) return;
    removed = std::move(found->second);
    watchers_.erase(found);
  }

  void stop() {
    const uint64_t one = 1;
    [[maybe_unused]] const auto written = write(stop_.get(), &one, sizeof one);
    MutexLock lock(mutex_);
    watchers_.clear();
    if (threadId_ == std::this_thread::get_id()) return;
    std::unique_lock<std::mutex> native(mutex_.native(), std::adopt_lock);
    while (running_)
      told_.wait(native);
    native.release();
  }

 private:
  using Block = std::shared_ptr<const std::function<void()>>;

  void _start() REQUIRES(mutex_) {
    if (started_) return;
    started_ = true;
    try {
      std::thread thread([self = shared_from_this()] { self->_threadMain(); });
      threadId_ = thread.get_id();
      running_ = true;
      thread.detach();  // it ends by itself without a bus, and is never joined from itself
    } catch (const std::system_error& error) {
      logError(std::string("No thread to watch the network: ") + error.what());
      answered_ = true;
    }
  }

  void _threadMain() {
    pthread_setname_np(pthread_self(), "qn-network");
    _follow();
    _report(NetworkStatus());
    MutexLock lock(mutex_);
    running_ = false;
    told_.notify_all();
  }

  void _follow() {
    Connection connection([this](NetworkStatus status) { _report(status); });
    if (!connection.open()) return;
    while (connection.process() && connection.wait(stop_.get())) {
    }
  }

  void _report(NetworkStatus status) {
    std::vector<Watcher> watchers;
    {
      MutexLock lock(mutex_);
      answered_ = true;
      told_.notify_all();
      if (status == status_) return;
      status_ = status;
      for (const auto& [watcher, block] : watchers_)
        watchers.push_back(watcher);
    }
    for (const Watcher watcher : watchers)
      _call(watcher);
  }

  void _call(Watcher watcher) {
    Block block;
    {
      MutexLock lock(mutex_);  // again for each: an earlier one may have removed it
      const auto found = watchers_.find(watcher);
      if (found == watchers_.end()) return;
      block = found->second;
    }
    try {
      if (*block) (*block)();
    } catch (...) {
      logError("Watcher of the network: " + describeCurrentException());
    }
  }

  const FileDescriptor stop_;
  Mutex mutex_;
  std::condition_variable told_;
  std::thread::id threadId_ GUARDED_BY(mutex_);
  bool running_ GUARDED_BY(mutex_) = false;
  bool started_ GUARDED_BY(mutex_) = false;
  bool answered_ GUARDED_BY(mutex_) = false;
  bool gaveUp_ GUARDED_BY(mutex_) = false;  // waited for an answer once, in vain
  NetworkStatus status_ GUARDED_BY(mutex_);
  Watcher lastWatcher_ GUARDED_BY(mutex_) = 0;
  std::map<Watcher, Block> watchers_ GUARDED_BY(mutex_);
};

NetworkManagerMonitor::NetworkManagerMonitor() : core_(std::make_shared<Core>()) {}

NetworkManagerMonitor::~NetworkManagerMonitor() {
  core_->stop();
}

NetworkStatus NetworkManagerMonitor::status() const {
  return core_->status();
}

NetworkMonitor::Watcher NetworkManagerMonitor::addWatcher(std::function<void()> changed) {
  const Watcher watcher = core_->addWatcher(std::move(changed));
  core_->status();  // from here on every change is told
  return watcher;
}

void NetworkManagerMonitor::removeWatcher(Watcher watcher) {
  core_->removeWatcher(watcher);
}

}  // namespace platform
