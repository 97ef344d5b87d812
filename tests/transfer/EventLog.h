#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

namespace qntest {

// What the launches of a MovieApplication wrote down inside their delegate's calls, held against
// the promise of a session: every end is told, once to one application, and never again after its
// file was taken; no identifier is used twice; what a call made is not lost. What is broken fails
// the test.
class EventLog {
 public:
  // All lines so far; what was read before is skipped.
  void read(const std::vector<std::string>& lines);
  // The service was killed, and may not have read what the launch under way said to it: that is
  // repeated by the application, and lost with it.
  void serviceWasKilled();
  void nextMovie();

  pid_t application() const { return application_; }  // of the last launch, 0 before it
  bool launched() const { return launched_; }         // it has its tasks
  bool hasTasks() const { return hasTasks_; }         // any
  size_t launches() const { return launches_; }

 private:
  void _open(pid_t application);
  void _made(const std::string& name, uint64_t id);
  void _offered(uint64_t id);
  void _completed(uint64_t id);

  size_t linesRead_ = 0, launches_ = 0;
  pid_t application_ = 0;
  // Of all launches.
  std::set<uint64_t> identifiers_, taken_, completed_;
  std::set<uint64_t> cancelled_;  // a kill came between making and describing them
  std::set<std::string> stored_;  // names of segments, as all names below
  std::set<std::string> safe_;    // made, and known to the service
  // Of this launch.
  bool launched_ = false, hasTasks_ = false, serviceDied_ = false;
  std::set<uint64_t> offered_;
  uint64_t uncompleted_ = 0;  // offered last, 0: none
  std::set<std::string> made_;
  std::set<std::string> recent_;  // of these, in the delegate call that may not be over
};

}  // namespace qntest
