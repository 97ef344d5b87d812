#pragma once

#include "cli/Options.h"

namespace cli {

// `qnmovie list`: what lies below the root, as its properties files tell.
int runList(const Options& options);

}  // namespace cli
