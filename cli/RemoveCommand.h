#pragma once

#include "cli/Options.h"

namespace cli {

// `qnmovie remove`: deletes a download with all that is remembered of it.
int runRemove(const Options& options);

}  // namespace cli
