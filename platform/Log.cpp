#include "platform/Log.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#include "platform/Exception.h"
#include "platform/Mutex.h"

namespace platform {
namespace {

using ErrorLog = std::function<void(const std::string&)>;

struct Registry {
  Mutex mutex;
  std::shared_ptr<const ErrorLog> log GUARDED_BY(mutex);
};

// Never destroyed: threads may still log while the process exits.
Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

}  // namespace

void logError(const std::string& message) noexcept {
  std::shared_ptr<const ErrorLog> log;
  {
    MutexLock lock(registry().mutex);
    log = registry().log;
  }
  try {
    if (log) return (*log)(message);
  } catch (...) {
    // A tap that fails must not lose the message.
  }
  std::fprintf(stderr, "%s\n", message.c_str());
}

std::string describeCurrentException() {
  try {
    throw;
  } catch (const Exception& exception) {
    return exception.name() + ": " + exception.reason();
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return "unknown exception";
  }
}

void setErrorLog(ErrorLog log) {
  auto next = log ? std::make_shared<const ErrorLog>(std::move(log)) : nullptr;
  MutexLock lock(registry().mutex);
  registry().log.swap(next);
}

}  // namespace platform
