#include "qnc/qncSystem.h"

#include <cstdlib>
#include <system_error>

namespace qnc {
namespace {

using Breakdown = std::tm* (*)(const std::time_t*, std::tm*);

// The C library's calendar reads the environment (TZ).
bool breakDown(Breakdown function, std::time_t at, std::tm& out) {
  const std::lock_guard lock(System::mutex());
  ::tzset();
  return function(&at, &out) != nullptr;
}

DateTime toDateTime(const std::tm& tm) {
  return DateTime(static_cast<uint32_t>(tm.tm_year + 1900), static_cast<uint32_t>(tm.tm_mon + 1),
                  static_cast<uint32_t>(tm.tm_mday), static_cast<uint32_t>(tm.tm_hour),
                  static_cast<uint32_t>(tm.tm_min), static_cast<uint32_t>(tm.tm_sec));
}

std::time_t withDaylightFlag(std::tm local, int flag) {
  local.tm_isdst = flag;
  return std::mktime(&local);
}

}  // namespace

std::recursive_mutex& System::mutex() {
  static std::recursive_mutex* const mutex = new std::recursive_mutex;
  return *mutex;
}

FastString System::envVar(const FastString& name) {
  const std::lock_guard lock(mutex());
  return FastString(std::getenv(name.c_str()));
}

bool System::envVarExists(const FastString& name) {
  const std::lock_guard lock(mutex());
  return std::getenv(name.c_str()) != nullptr;
}

bool System::setEnv(const FastString& name, const FastString& value) {
  const std::lock_guard lock(mutex());
  return ::setenv(name.c_str(), value.c_str(), 1) == 0;
}

bool System::deleteEnv(const FastString& name) {
  const std::lock_guard lock(mutex());
  return ::unsetenv(name.c_str()) == 0;
}

FastString System::getSystemErrorString(int error) {
  return FastString(std::generic_category().message(error));
}

int64_t System::getEpochTime() {
  return std::time(nullptr);
}

DateTime System::getLocalDateTime(bool* isDaylightTime) {
  return getLocalDateTime(std::time(nullptr), isDaylightTime);
}

DateTime System::getLocalDateTime(std::time_t at, bool* isDaylightTime) {
  std::tm local{};
  if (!breakDown(::localtime_r, at, local)) return DateTime();
  if (isDaylightTime) *isDaylightTime = local.tm_isdst > 0;
  return toDateTime(local);
}

DateTime System::getAbsoluteDateTime() {
  return getAbsoluteDateTime(std::time(nullptr));
}

DateTime System::getAbsoluteDateTime(std::time_t at) {
  std::tm utc{};
  return breakDown(::gmtime_r, at, utc) ? toDateTime(utc) : DateTime();
}

bool System::timeZoneInfo(TimeZoneInfo& info) {
  return timeZoneInfo(info, std::time(nullptr));
}

bool System::timeZoneInfo(TimeZoneInfo& info, std::time_t at) {
  const std::lock_guard lock(mutex());
  info.isDaylightTime = false;
  const DateTime local = getLocalDateTime(at, &info.isDaylightTime);
  info.bias = static_cast<int32_t>(DateTime::getDeltaMs(local, getAbsoluteDateTime(at)) / 60'000);
  info.daylightBias = 0;
  if (info.isDaylightTime) {
    std::tm tm{};
    ::localtime_r(&at, &tm);
    info.daylightBias =
        static_cast<int32_t>((withDaylightFlag(tm, 1) - withDaylightFlag(tm, 0)) / 60);
  }
  info.standardName = ::tzname[0];
  info.daylightName = ::tzname[1];
  return true;
}

}  // namespace qnc
