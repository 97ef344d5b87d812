#pragma once

#include <functional>
#include <string>

#include "playlist/QNPlaylist.h"
#include "playlist/QNResourceListBuilder.h"

// A resource list as one line: "reference[offset,length]" each, the brackets only where there is a
// range, the base URL left out; "(empty)" for an empty reference.
std::string render(const QNResourceList& list);
std::string render(const QNResourceListPtr& list);

// A playlist as one line: "movie 10 { video 10 name language { id code bitrate (parameters) } }"
// with "-" for what is absent.
std::string render(const QNPlaylist& playlist);

// What a call throws as "name: reason", or nothing.
std::string thrown(const std::function<void()>& call);
