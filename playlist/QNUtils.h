#pragma once

#include <cstdint>
#include <limits>
#include <vector>

namespace platform {

// "No such index" as index functions report it.
inline constexpr uint64_t NSNotFound = std::numeric_limits<int64_t>::max();

}  // namespace platform

// Whether `index` addresses an element; never for platform::NSNotFound.
template <class T>
[[nodiscard]] bool containsIndex(const std::vector<T>& array, uint64_t index) {
  return index < array.size() && index != platform::NSNotFound;
}
