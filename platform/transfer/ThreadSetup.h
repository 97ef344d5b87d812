#pragma once

#include <functional>
#include <string>
#include <thread>

namespace platform {

// A thread that takes no signals (also no SIGPIPE, which TLS could cause), named for debuggers.
// Throws std::system_error when there is none to be had.
std::thread startThread(const std::string& name, std::function<void()> body);

// For tests: asked before a thread is started; when it says true there is none to be had. Null
// removes it.
void setThreadFault(std::function<bool(const std::string& name)> fault);

}  // namespace platform
