#pragma once

#include "cli/Options.h"

namespace cli {

// `status`: one download or all that there are records of, once or until nothing moves any more.
int runStatus(const Options& options);
// `pause`, `resume` and `cancel`: through the process that works on the download, else by opening
// its session here.
int runControl(const Options& options);

}  // namespace cli
