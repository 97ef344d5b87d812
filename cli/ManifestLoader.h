#pragma once

#include <memory>
#include <string>

#include "platform/Data.h"
#include "platform/URLRequest.h"
#include "playlist/QNPlaylist.h"

namespace cli {

struct LoadedManifest {
  std::shared_ptr<QNPlaylist> playlist;  // with at least one movie
  platform::DataPtr bytes;
};

// Both wait for the end and throw Failure: ExitUnreachable when there is nothing to read,
// ExitManifest when no parser accepts it (with both parsers' reasons and the HTTP status unless it
// was 200) or when it lists no movie.
LoadedManifest loadManifestFromURL(const std::string& url, const platform::HTTPHeaders& headers);
LoadedManifest loadManifestFromFile(const std::string& path);

// `url` without fragment, query and last path component: what relative references of its manifest
// resolve against.
std::string baseURLOf(const std::string& url);

}  // namespace cli
