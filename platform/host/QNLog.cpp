#include "platform/host/QNLog.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "platform/Log.h"
#include "platform/Mutex.h"

namespace {

struct Tap {
  std::function<bool(int)> wants;
  std::function<void(int, const std::string&)> log;
};

int defaultLevel() {
  const char* const text = std::getenv("QN_LOG_LEVEL");
  if (!text) return QNLogLevelError;
  const std::string_view view(text);
  int level = 0;
  const auto [end, failed] = std::from_chars(view.data(), view.data() + view.size(), level);
  const bool whole = failed == std::errc() && end == view.data() + view.size();
  return whole ? level : QNLogLevelError;
}

std::shared_ptr<const Tap> defaultTap() {
  const int least = defaultLevel();
  Tap tap;
  tap.wants = [least](int level) { return level >= least; };
  tap.log = [](int, const std::string& message) { std::fprintf(stderr, "%s\n", message.c_str()); };
  return std::make_shared<const Tap>(std::move(tap));
}

struct Registry {
  platform::Mutex mutex;
  std::shared_ptr<const Tap> tap GUARDED_BY(mutex) = defaultTap();
  std::mutex
      calling;  // messages reach the tap one at a time; no other lock is taken under it by us
};

// Never destroyed: threads may still log while the process exits.
Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

std::shared_ptr<const Tap> currentTap() {
  platform::MutexLock lock(registry().mutex);
  return registry().tap;
}

// A tap that logs itself would wait for its own message.
thread_local bool insideTap = false;

}  // namespace

bool QNCheckLogTap(int level, const std::string&) {
  return currentTap()->wants(level);
}

void QNLog(int level, const std::string& message) {
  if (insideTap) return;
  const auto tap = currentTap();
  std::lock_guard lock(registry().calling);
  insideTap = true;
  try {
    tap->log(level, message);
  } catch (...) {
    std::fprintf(stderr, "%s\n", message.c_str());
  }
  insideTap = false;
}

void QNSetLogTap(std::function<bool(int level)> wants,
                 std::function<void(int level, const std::string&)> log) {
  const bool isDefault = !wants && !log;
  Tap tap = *defaultTap();
  if (wants) tap.wants = std::move(wants);
  if (log) tap.log = std::move(log);
  auto next = std::make_shared<const Tap>(std::move(tap));
  {
    platform::MutexLock lock(registry().mutex);
    registry().tap.swap(next);
  }
  if (isDefault) return platform::setErrorLog(nullptr);
  platform::setErrorLog([](const std::string& message) {
    if (QNCheckLogTap(QNLogLevelError, message)) QNLog(QNLogLevelError, message);
  });
}
