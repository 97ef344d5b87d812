#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qntest {

// Runs `body` in a child process that is root of a user and mount namespace of its own, so that it
// may mount. The child starts no threads. Its expectations count: returns whether none failed and
// nothing was thrown; nullopt when this system allows no such namespace.
std::optional<bool> runInUserNamespace(const std::function<void()>& body);

// Inside such a child: an empty tmpfs of that size at `path`, an existing directory. Throws when it
// cannot be mounted.
void mountTmpfs(const std::string& path, int64_t bytes);

// The first words of a command line that runs the rest in a mount namespace of its own, with a
// tmpfs of `bytes` at `path`, an existing directory, of which a file "ballast" takes `taken`.
// Others see it below /proc/PID/root. Empty when this system allows no such namespace.
std::vector<std::string> commandOnTmpfs(const std::string& path, int64_t bytes, int64_t taken);

// This thread acts as a user of no rights until the end of the scope: the files that it opens, the
// connections that it makes and the sockets that it listens on are that user's. Only root can.
class AnotherUser {
 public:
  static constexpr unsigned kNobody = 65534;
  static bool isAllowed();
  AnotherUser();
  ~AnotherUser();
  AnotherUser(const AnotherUser&) = delete;
  AnotherUser& operator=(const AnotherUser&) = delete;
};

}  // namespace qntest
