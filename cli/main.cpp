#include "cli/Program.h"

int main(int argc, char** argv) {
  return cli::runProgram(argc, argv);
}
