#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "platform/FileDescriptor.h"
#include "platform/URLSession.h"

namespace platform::service {

// Where the user's service is and how it is started. Read from the environment once, on a thread of
// the application's: no other thread of the library looks there while the application may change
// it.
struct ServicePlace {
  std::string socket;
  // $QN_TRANSFERD, else beside this program or in "../libexec" or "../bin" of its directory, else
  // in the "libexec" of the tree that the library lies in, else where it was installed.
  std::string program;
  std::vector<std::string> environment;

  static ServicePlace fromEnvironment();
};

// A connection to the user's service, past the hello. Starts the service when none answers; makes
// an older one commit and leave, and starts its own. None, with the reason in `refusal`, when that
// fails or the service is a newer one.
FileDescriptor connectToService(const ServicePlace& place, std::string& refusal);

// Starts a session's launch command with QN_SESSION_IDENTIFIER in its environment, in a process
// session of its own, without the caller's descriptors. 0 and an errno when it cannot be started.
pid_t startLaunchCommand(const LaunchCommand& command, const std::string& identifier, int* error);

}  // namespace platform::service
