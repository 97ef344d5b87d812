#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace platform {

// An immutable run of bytes, shared.
using Data = std::vector<uint8_t>;
using DataPtr = std::shared_ptr<const Data>;

}  // namespace platform
