#pragma once

#include <set>
#include <vector>

#include <sys/types.h>

namespace qntest {

// About any process, also one that is no child of this one (which may stay a zombie: gone is gone,
// whether or not somebody has asked how it ended). Nothing and true for 0.
[[nodiscard]] bool waitForExit(pid_t process, double seconds);
void killAndWait(pid_t process);  // SIGKILL

// While it lives, processes whose parent dies become children of this one: so that a test can end
// whatever its own processes started, also what detached itself.
class Orphanage {
 public:
  Orphanage();
  ~Orphanage();  // ends everybody
  Orphanage(const Orphanage&) = delete;
  Orphanage& operator=(const Orphanage&) = delete;

  // Live children that were not there before; `spared` is none of them. Reaps dead ones.
  std::vector<pid_t> children(pid_t spared = 0) const;
  // Until there are none. `spared` is left to its owner, who has killed it.
  void killEverybody(pid_t spared = 0) const;

 private:
  std::set<pid_t> before_;
};

}  // namespace qntest
