#pragma once

#include <functional>
#include <string>

#include "platform/Export.h"

namespace platform {

// Where the platform layer tells what no caller can be told: an exception that left a block or an
// observer, state that was found damaged. Goes to the host's log tap once one is set, else to
// standard error. Thread-safe, never throws.
QN_EXPORT void logError(const std::string& message) noexcept;
// Describes the exception that is being handled ("QNPlaylistFactoryException: reason",
// "std::bad_alloc", "unknown exception"); for catch-all blocks.
QN_EXPORT std::string describeCurrentException();

// The log tap of platform/host puts itself here; null restores standard error.
QN_EXPORT void setErrorLog(std::function<void(const std::string&)> log);

}  // namespace platform
