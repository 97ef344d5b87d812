#pragma once

#include <functional>

#include "cli/Options.h"
#include "platform/JSON.h"

namespace cli {

// Stores a presentation, or goes on with one.
int runDownload(const Options& options);

// The same without anybody to watch, in the transfer service; it ends when it is paused.
struct Headless {
  // Called once, when everything is in the service's hands ({"url","id","directory","complete"}).
  // False when nobody listens any more.
  std::function<bool(const platform::JSON& begun)> begun;
};
int runDownload(const Options& options, const Headless& headless);

}  // namespace cli
