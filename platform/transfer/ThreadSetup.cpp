#include "platform/transfer/ThreadSetup.h"

#include <csignal>
#include <utility>

#include <pthread.h>

#include "platform/Log.h"

namespace platform {

std::thread startThread(const std::string& name, std::function<void()> body) {
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
