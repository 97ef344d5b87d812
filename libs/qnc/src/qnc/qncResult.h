#pragma once

#include <cstdint>

namespace qnc {

// Result codes of the core library. debug::Log::getErrorCodeString gives their texts.
enum class Result : uint32_t {
  Success = 0,
  AlreadyInitialized = 1,
  AlreadyDestroyed = 2,
  InvalidHandle = 3,
  InvalidArguments = 4,
  InvalidFormat = 5,
  InvalidObject = 6,
  InvalidCredentials = 7,
  NotAvailable = 8,
  PermissionDenied = 9,
  OutOfRange = 10,
  OutOfMemory = 11,
  IOError = 12,
  EndOfFile = 13,
  InvalidResponse = 14,
  CouldNotConnect = 15,
  NotInitialized = 16,
  UnsupportedFeature = 17,
  GeneralFailure = 0xFFFF,
};

[[nodiscard]] constexpr bool succeeded(Result result) {
  return result == Result::Success;
}
[[nodiscard]] constexpr bool failed(Result result) {
  return result != Result::Success;
}

}  // namespace qnc
