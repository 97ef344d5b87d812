#pragma once

#include <map>
#include <string>

#include "tests/support/Processes.h"
#include "tests/transfer/EventLog.h"
#include "tests/transfer/MovieRun.h"

namespace qntest {

enum class Victim { Application, Service, Both };

// A MovieRun whose transfers run in a service of its own, which starts the application again.
class ServiceRun : public MovieRun {
 public:
  explicit ServiceRun(const MoviePlan& plan);
  ~ServiceRun() override;

  // Waits until another application than the one that was killed last has opened the session, and
  // (`launched`) has its tasks.
  [[nodiscard]] bool waitForApplication(bool launched);
  // The application alone: nothing may be noticed of it but its launch. Both: as killAndCheck().
  // True when nobody is left, which the death of an application that was about to start a service
  // is enough for: then the test starts the next one.
  [[nodiscard]] bool kill(Victim victim);
  size_t stored() const;  // segments that are in place
  size_t launches() const { return events_.launches(); }
  void finishAndCompare(double seconds = 90) override;
  void nextMovie();

  std::map<Victim, unsigned> kills;  // by what died

 private:
  pid_t _service() const;

  Orphanage processes_;
  EventLog events_;
  pid_t killed_ = 0;
};

}  // namespace qntest
