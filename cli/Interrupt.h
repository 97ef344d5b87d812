#pragma once

#include <chrono>
#include <functional>

namespace cli {

// SIGINT and SIGTERM, and the wake-ups of the main thread. Until `deferSignals`, a signal ends the
// process at once; from then on the first is only remembered and wakes the main thread, the second
// ends the process.
class Interrupt {
 public:
  // Once, on the main thread, before other threads start. Also ignores SIGPIPE: a server that goes
  // away is an error of a transfer, not the end of the program.
  static void install();
  static void deferSignals();

  // The exit code that the remembered signal asks for (128 + its number), 0 without one.
  static int exitCode();

  // Makes the next or current `wait` return. Any thread, also a signal handler.
  static void wake();
  // Until `wake`, a signal, or the time is over.
  static void wait(std::chrono::milliseconds most);
};

}  // namespace cli
