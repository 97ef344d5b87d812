#pragma once

#include <string>

#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/FileDescriptor.h"

namespace platform {

enum class PrivateDirectoryMode {
  Tightened,  // one of ours that is open to others is closed to them
  Strict,     // it is refused
};

// Opens a directory that is this user's alone (mode 0700) for reading; makes it, and what lies
// above it, when there is none. Whoever may write above it could have been there first, so what is
// found at `path` is looked at through the descriptor, never by its name: a link is not followed,
// and a directory of another user, or one that others may write to, is refused. Where a file system
// keeps no modes, that others may read it is let be.
// Without a descriptor `error` says why.
QN_EXPORT FileDescriptor openPrivateDirectory(const std::string& path, PrivateDirectoryMode mode,
                                              ErrorPtr& error);

}  // namespace platform
