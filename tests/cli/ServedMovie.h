#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tests/support/FaultServer.h"

namespace qntest {

// A made-up movie of one quality on a server, slow enough for a kill to meet transfers under way.
class ServedMovie {
 public:
  // Paces everything that the server serves.
  ServedMovie(FaultServer& server, const std::string& name);

  std::string url() const { return server_.url("/" + name_ + "/manifest.mpd"); }
  static constexpr int kSegments = 60;
  // Of a segment, as the program stores it and on the server.
  static std::string fileOf(int segment) { return std::to_string(segment) + ".m4s"; }
  std::string pathOf(int segment) const { return "/" + name_ + "/" + fileOf(segment); }
  static uint64_t sizeOf(int segment);

  void expectWhole(const std::string& directory) const;
  // Requests beyond one for each segment, and bytes that the server sent more than once.
  struct Again {
    size_t requests = 0;
    uint64_t bytes = 0;
  };
  Again again() const;

 private:
  FaultServer& server_;
  const std::string name_;
};

}  // namespace qntest
