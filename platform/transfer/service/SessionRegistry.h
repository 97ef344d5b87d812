#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/URLSession.h"

namespace platform::service {

// What the service has to know of a session to find its store, which remembers everything else, and
// to go on as before: a service that was killed goes on with the session, and an application that
// dies again and again is not started for ever.
struct SessionRecord {
  std::string identifier;
  std::string stateDirectory;
  std::string partialDirectory;  // as configured
  bool wantsToRun = false;
  uint32_t launches = 0;  // of the launch command, since an event was acknowledged
  bool operator==(const SessionRecord&) const = default;

  // What finds the store, and nothing else.
  URLSessionConfiguration configuration() const;
};

// One file per session, "<hash of the store's path>.session", in one directory (0700, files 0600).
// Damaged files are ignored and removed.
class SessionRegistry {
 public:
  // Throws platform::Exception "NSURLSessionException" when the directory cannot be had for this
  // user alone.
  explicit SessionRegistry(std::string directory);

  std::vector<SessionRecord> load() const;
  std::optional<SessionRecord> find(const std::string& key) const;
  void save(const SessionRecord& record) const;
  void remove(const std::string& key) const;

  // What tells sessions apart: the directory of the store.
  static std::string keyOf(const URLSessionConfiguration& configuration);

 private:
  std::string pathOf(const std::string& key) const;
  std::optional<SessionRecord> read(const std::string& path) const;

  const std::string directory_;
};

}  // namespace platform::service
