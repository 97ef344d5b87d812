#include "engine/QNUniqueString.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>

#include <unistd.h>

#include "engine/QNHash.h"

std::string QNUniqueString() {
  static std::atomic<uint64_t> counter{0};
  const auto now = std::chrono::system_clock::now().time_since_epoch().count();
  std::random_device random;
  const uint64_t dice = (uint64_t{random()} << 32) | random();
  return QNHexDigits(static_cast<uint64_t>(now)) + "-" + QNHexDigits(dice) + "-" +
         std::to_string(getpid()) + "-" + std::to_string(++counter);
}
