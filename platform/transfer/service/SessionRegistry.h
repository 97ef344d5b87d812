#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/URLSession.h"

namespace platform::service {

// What the service remembers of a session beside its store, so that a service that was killed goes
// on with it and an application that dies again and again is not started for ever.
struct SessionRecord {
  URLSessionConfiguration configuration;
  bool wantsToRun = false;
  uint32_t launches = 0;  // of the launch command, since an event was acknowledged
};

// One file per session, "<hash of the identifier>.session", in one directory (0700, files 0600):
// a text of the opening message as it passed the socket, wantsToRun, launches. Damaged files are
// ignored and removed.
class SessionRegistry {
 public:
  explicit SessionRegistry(std::string directory);

  std::vector<SessionRecord> load() const;
  void save(const SessionRecord& record) const;
  void remove(const std::string& key) const;

  // What tells sessions apart: the directory of the store.
  static std::string keyOf(const URLSessionConfiguration& configuration);

 private:
  std::string pathOf(const std::string& key) const;

  const std::string directory_;
};

}  // namespace platform::service
