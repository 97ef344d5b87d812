#pragma once

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <thread>

namespace qntest {

// The random choices of a test that kills processes. $QN_KILLS and $QN_SEED change a run; the seed
// is printed, so that a failing one can be repeated.
class RandomKills {
 public:
  explicit RandomKills(unsigned kills)
      : kills_(numberFrom("QN_KILLS", kills)),
        seed_(numberFrom("QN_SEED", std::random_device()())),
        random_(seed_) {
    std::cout << "seed " << seed_ << ", " << kills_ << " kills" << std::endl;
  }

  unsigned count() const { return kills_; }
  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  void sleepBelow(unsigned milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(below(milliseconds)));
  }

 private:
  static unsigned numberFrom(const char* variable, unsigned otherwise) {
    const char* text = std::getenv(variable);
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
  }

  const unsigned kills_;
  const unsigned seed_;
  std::mt19937 random_;
};

}  // namespace qntest
