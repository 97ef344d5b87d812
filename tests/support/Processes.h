#pragma once

#include <sys/types.h>

namespace qntest {

// About any process, also one that is no child of this one (which may stay a zombie: gone is gone,
// whether or not somebody has asked how it ended). Nothing and true for 0.
[[nodiscard]] bool waitForExit(pid_t process, double seconds);
void killAndWait(pid_t process);  // SIGKILL

}  // namespace qntest
