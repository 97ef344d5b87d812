#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace platform {

// XXH3 (64 bits, seed 0) of bytes that come in pieces. It finds what a disk or a power loss did to
// a file; it is no defence against somebody who means to deceive. Not thread-safe.
class QN_EXPORT ContentHash {
 public:
  ContentHash();
  ~ContentHash();
  ContentHash(const ContentHash&) = delete;
  ContentHash& operator=(const ContentHash&) = delete;

  void update(const void* bytes, size_t count);
  // Of all bytes so far; more may follow.
  uint64_t digest() const;

  static uint64_t of(std::string_view bytes);
  // Reads the whole file, links not followed. nullopt when it cannot be read to its end.
  static std::optional<uint64_t> ofFile(const std::string& path);

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace platform
