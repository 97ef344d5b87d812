#pragma once

#include <string>

#include <sys/types.h>

namespace qnbench {

// The service of this process's environment; 0 when none listens.
pid_t servicePid();

struct Memory {
  long peakKiB = 0;       // VmHWM
  long anonymousKiB = 0;  // RssAnon
};
Memory memoryOf(pid_t pid);

struct ServiceUse {
  bool ok = false;
  double cpu = 0;  // seconds, all its threads
  Memory memory;
};
// Ends the service and tells what it used. This process has to be the subreaper of whoever started
// it.
ServiceUse stopService();

// Holds `count` tasks in a session of the service, suspended or queued behind 64 that transfer
// slowly, and prints what the service's memory came to.
int runHeld(const std::string& base, const std::string& work, long count, bool queued);

}  // namespace qnbench
