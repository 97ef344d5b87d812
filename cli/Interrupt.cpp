#include "cli/Interrupt.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace cli {
namespace {

std::atomic<bool> deferred{false};
std::atomic<int> received{0};
std::atomic<int> wakeDescriptor{-1};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

// Only what may be done in a signal handler (POSIX.1 section 2.4.3).
void handle(int number) {
  const int saved = errno;
  if (!deferred || received.exchange(number) != 0) ::_exit(128 + number);
  Interrupt::wake();
  errno = saved;
}

}  // namespace

void Interrupt::install() {
  wakeDescriptor = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeDescriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  struct sigaction action {};
  action.sa_handler = &handle;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

void Interrupt::deferSignals() {
  deferred = true;
}

int Interrupt::exitCode() {
  const int number = received;
  return number == 0 ? 0 : 128 + number;
}

void Interrupt::wake() {
  const uint64_t one = 1;
  // The counter is full only when a wake-up is pending anyway.
  [[maybe_unused]] const ssize_t ignored = ::write(wakeDescriptor, &one, sizeof one);
}

void Interrupt::wait(std::chrono::milliseconds most) {
  pollfd entry{wakeDescriptor, POLLIN, 0};
  ::poll(&entry, 1, static_cast<int>(most.count()));
  uint64_t count = 0;
  [[maybe_unused]] const ssize_t ignored = ::read(wakeDescriptor, &count, sizeof count);
}

}  // namespace cli
