#pragma once

#include <string>

// A text that no other call gives: among the processes of this machine, their launches and threads.
std::string QNUniqueString();
