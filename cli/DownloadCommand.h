#pragma once

#include "cli/Options.h"

namespace cli {

// `qnmovie download`: stores a presentation, or goes on with one.
int runDownload(const Options& options);

}  // namespace cli
