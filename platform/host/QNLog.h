#pragma once

#include <functional>
#include <string>

#include "platform/Export.h"

// The host SDK's log tap. Level 16 is "error", 0 the least of all.
inline constexpr int QNLogLevelError = 16;

// Whether a message of this level is wanted. The level alone decides; the message, which may still
// hold format markers, is part of the host's interface and not looked at.
QN_EXPORT bool QNCheckLogTap(int level, const std::string& message);
// Hands the finished message to the tap.
QN_EXPORT void QNLog(int level, const std::string& message);

// The host's tap: whether it wants a level, and where messages go (any thread, several at a time
// never). It is called with locks of this library held: it must neither throw nor call back into it
// nor wait for a thread that does. Null functions restore the default: level 16 and above to
// standard error, unless the environment variable QN_LOG_LEVEL says another level.
QN_EXPORT void QNSetLogTap(std::function<bool(int level)> wants,
                           std::function<void(int level, const std::string&)> log);
