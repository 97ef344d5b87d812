#pragma once

#include <string>

#include <sys/types.h>

#include "platform/FileDescriptor.h"
#include "platform/URLSession.h"

namespace platform::service {

// A connection to the user's service, past the hello. Starts the service when none answers; makes
// an older one commit and leave, and starts its own. None, with the reason in `refusal`, when that
// fails or the service is a newer one.
FileDescriptor connectToService(std::string& refusal);

// The program that is started: $QN_TRANSFERD, else beside this program or in "../libexec" or
// "../bin" of its directory, else where it was installed.
std::string serviceProgram();

// Starts a session's launch command with QN_SESSION_IDENTIFIER in its environment, in a process
// session of its own, without the caller's descriptors. 0 and an errno when it cannot be started.
pid_t startLaunchCommand(const LaunchCommand& command, const std::string& identifier, int* error);

}  // namespace platform::service
