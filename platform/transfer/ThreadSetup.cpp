#include "platform/transfer/ThreadSetup.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include <pthread.h>

#include "platform/Log.h"

namespace platform {
namespace {

std::atomic<bool> hasFault{false};
std::function<bool(const std::string&)>& threadFault() {
  static auto* const instance = new std::function<bool(const std::string&)>;
  return *instance;
}

}  // namespace

void setThreadFault(std::function<bool(const std::string& name)> fault) {
  hasFault.store(false);
  threadFault() = std::move(fault);
  hasFault.store(static_cast<bool>(threadFault()), std::memory_order_release);
}

std::thread startThread(const std::string& name, std::function<void()> body) {
  if (hasFault.load(std::memory_order_acquire) && threadFault()(name))
    throw std::system_error(EAGAIN, std::generic_category(), "thread " + name);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);  // inherited by the new thread
  struct Restore {
    const sigset_t& mask;
    ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } restore{before};
  return std::thread([name, body = std::move(body)] {
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    try {
      body();
    } catch (...) {
      logError("Thread " + name + ": " + describeCurrentException());
    }
  });
}

}  // namespace platform
