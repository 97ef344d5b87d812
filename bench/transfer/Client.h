#pragma once

#include <string>

namespace qnbench {

// `segments` files of `bytes` for each of `qualities`, four of each quality in flight.
struct ClientOptions {
  std::string base;  // "http://127.0.0.1:1234"
  std::string directory;
  std::string state;
  std::string caFile;
  int qualities = 1;
  int segments = 1;
  long bytes = 0;
  bool manifestFirst = false;  // the floor asks for a manifest before the files
  bool hashes = false;         // the floor hashes what it writes, as the session does
  bool useService = false;
};

// The path of a manifest of the files.
std::string manifestPath(int qualities, int segments, long bytes);

int runFloor(const ClientOptions& options);
int runSession(const ClientOptions& options);

}  // namespace qnbench
