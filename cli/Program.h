#pragma once

namespace cli {

// The whole program: parses, runs one command, tells failures, and gives the exit code. Lets no
// exception out.
int runProgram(int argc, const char* const* argv);

}  // namespace cli
