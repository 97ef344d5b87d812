#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"

// Where a resource's file lies: at its reference, below the download directory and nowhere else.
//
// Manifests hold absolute URLs, leading "..", queries, and names that no file can have. The
// reference is taken as a path as it stands, except that
//   - a ".." that would leave the directory is stored as "%2E%2E" (the same address by RFC 3986
//     section 6.2.2.2, but a name for the file system),
//   - a component over 255 bytes is stored as its first 200 (fewer where that would cut a character
//     of UTF-8), "~" and 16 digits of its hash,
//   - a component that looks like a temporary file of ours begins with "%2E" instead of ".",
//   - a NUL byte is stored as "%00".
// The address that is requested is never changed. Pure functions.
QN_EXPORT std::string QNRelativeResourcePath(const std::string& reference);

// Whether a reference is a path as it stands and names its file in the only way: what nearly all
// are, and what makes the functions of this header return it unchanged.
QN_EXPORT bool QNIsOrdinaryPath(std::string_view reference);

// What a path means to the file system: without empty components, "." and "..", so that two paths
// name one file exactly when these are equal. Empty for the directory itself.
QN_EXPORT std::string QNNormalisedPath(std::string_view relativePath);

// Why no file can lie at a path that `QNRelativeResourcePath` gave; nullopt when one can.
// `manifestName` is the file of the stored manifest, which is not to be replaced. The names of our
// own files are refused in any case of their letters, that of the manifest when the directory folds
// case.
QN_EXPORT std::optional<std::string> QNRefusalOfPlace(std::string_view relativePath,
                                                      std::string_view manifestName,
                                                      bool foldsCase = false);

// In lower case, for comparing names of a directory that does not tell cases apart. Bytes that are
// no UTF-8 stay.
QN_EXPORT std::string QNFoldedCase(std::string_view text);
