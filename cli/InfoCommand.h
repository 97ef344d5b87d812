#pragma once

#include "cli/Options.h"

namespace cli {

// `qnmovie info`: a table for a person, or the JSON object that docs/cli.md describes, on standard
// output.
int runInfo(const Options& options);

}  // namespace cli
