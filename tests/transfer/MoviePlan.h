#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qntest {

// The header without which the server of a movie gives nothing.
inline constexpr const char* kMovieHeader = "X-Token";
inline constexpr const char* kMovieHeaderValue = "insist on it";

// A made-up movie: what the test serves and its child process downloads. Passed as arguments.
struct MoviePlan {
  std::string identifier = "org.example.movie";
  std::string baseURL;  // "http://127.0.0.1:port"
  int generation = 0;   // part of every path, so that one server has many movies
  int qualities = 3;
  int segments = 100;
  uint64_t bytes = 100000;  // of a segment, about
  int parallel = 4;         // of a quality

  uint64_t sizeOf(int segment) const {
    return bytes / 2 + bytes * static_cast<uint64_t>(segment % 5) / 4;
  }
  static std::string nameOf(int quality, int segment) {
    return std::to_string(quality) + "/" + std::to_string(segment);
  }
  std::string pathOf(const std::string& name) const {
    return "/movie" + std::to_string(generation) + "/" + name;
  }

  // "key=value" arguments, and back; others are left alone.
  std::vector<std::string> arguments() const {
    return {"identifier=" + identifier,
            "baseURL=" + baseURL,
            "generation=" + std::to_string(generation),
            "qualities=" + std::to_string(qualities),
            "segments=" + std::to_string(segments),
            "bytes=" + std::to_string(bytes),
            "parallel=" + std::to_string(parallel)};
  }
  static MoviePlan fromArguments(std::map<std::string, std::string> values) {
    MoviePlan plan;
    plan.identifier = values["identifier"];
    plan.baseURL = values["baseURL"];
    plan.generation = std::stoi(values["generation"]);
    plan.qualities = std::stoi(values["qualities"]);
    plan.segments = std::stoi(values["segments"]);
    plan.bytes = std::stoull(values["bytes"]);
    plan.parallel = std::stoi(values["parallel"]);
    return plan;
  }
};

}  // namespace qntest
