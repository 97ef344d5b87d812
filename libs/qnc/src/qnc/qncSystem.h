#pragma once

#include <cstdint>
#include <ctime>
#include <mutex>

#include "qnc/qncDateTime.h"
#include "qnc/qncFastString.h"

namespace qnc {

struct TimeZoneInfo {
  int32_t bias = 0;  // minutes that local time is ahead of UTC
  bool isDaylightTime = false;
  int32_t daylightBias = 0;  // minutes
  FastString standardName;
  FastString daylightName;
};

// Services of the operating system. The environment functions run under mutex(), which an
// application may hold around several of them; it does not bind code that calls the C library
// directly.
class System {
 public:
  static FastString envVar(const FastString& name);  // empty when absent
  static bool envVarExists(const FastString& name);
  [[nodiscard]] static bool setEnv(const FastString& name, const FastString& value);
  [[nodiscard]] static bool deleteEnv(const FastString& name);

  // Text of an errno value.
  static FastString getSystemErrorString(int error);
  static std::recursive_mutex& mutex();

  // Now, to the second; the null date-time when the clock cannot be broken down. `isDaylightTime`,
  // when given, is set to whether daylight-saving time is in force.
  static DateTime getLocalDateTime(bool* isDaylightTime = nullptr);
  static DateTime getLocalDateTime(std::time_t at, bool* isDaylightTime = nullptr);
  static DateTime getAbsoluteDateTime();  // UTC
  static DateTime getAbsoluteDateTime(std::time_t at);
  static int64_t getEpochTime();  // seconds since 1970

  static bool timeZoneInfo(TimeZoneInfo& info);
  static bool timeZoneInfo(TimeZoneInfo& info, std::time_t at);
};

}  // namespace qnc
