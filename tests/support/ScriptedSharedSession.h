#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/URLSession.h"

namespace qntest {

// Stands in for the shared session as long as it lives: fetches wait until the test answers them,
// on the test's thread.
class ScriptedSharedSession {
 public:
  ScriptedSharedSession();
  ~ScriptedSharedSession();
  ScriptedSharedSession(const ScriptedSharedSession&) = delete;
  ScriptedSharedSession& operator=(const ScriptedSharedSession&) = delete;

  // URLs of the fetches that wait, in their order.
  std::vector<std::string> waiting() const;
  // Ends the first fetch that waits; false when there is none.
  bool answer(const std::string& body, int status = 200);
  bool fail(int64_t urlErrorCode);
  bool answerWithNothing();  // neither bytes nor error

 private:
  class Session;
  const std::shared_ptr<Session> session_;
};

}  // namespace qntest
