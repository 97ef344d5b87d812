#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "qnc/qncFastString.h"
#include "qnc/qncResult.h"

namespace qnc::debug {

enum class Level : uint32_t { TRACE = 0, INFO = 1, DEBUG = 2, WARNING = 3, ERROR = 4, FATAL = 5 };

// The core library's logger: one per process, safe on any thread.
//
// A message that is wanted becomes one line
//   "[%04u.%03u] <0x%08x> %s: [%s:%u] %s%s"
// seconds within the hour and milliseconds of local time, thread, level, source and line, message,
// and ": " with the text of the result code when that is not 0.
class Log {
 public:
  struct Record {
    Level level = Level::INFO;
    Result result = Result::Success;
    const char* source = "";    // such as "libs/mpl/src/mpl/dash/MediaPresentationDescription"
    const char* function = "";  // such as "parsePSSHBoxUUID"
    uint32_t line = 0;
    std::string_view message;
  };
  // Called under no lock of the logger's, from the logging thread, with the line as formatted,
  // without a line break. The texts live for the call only. May log; may not throw.
  using Sink = std::function<void(const Record& record, std::string_view line)>;

  static bool isEnabled(Level level);
  static Level level();
  // Messages below are dropped before they are formatted. WARNING at start.
  static void setLevel(Level level);
  // An empty sink stands for the standard one, which writes the line to stderr. Returns the former
  // sink.
  static Sink setSink(Sink sink);

  static void write(const Record& record);
  static void write(Level level, Result result, const char* source, const char* function,
                    uint32_t line, std::string_view message) {
    write(Record{level, result, source, function, line, message});
  }

  // "Success" for 0; "Unknown error" for a value that is no result code.
  static const char* getErrorCodeString(uint32_t code);
  static const char* getErrorCodeString(Result result) {
    return getErrorCodeString(static_cast<uint32_t>(result));
  }
  static const char* levelName(Level level);

  // The line of a record; `seconds` are those within the hour.
  static std::string formatLine(const Record& record, uint32_t seconds, uint32_t milliseconds,
                                uint32_t threadId);
};

}  // namespace qnc::debug

// Logs with the line of the call; the message is evaluated only when the level is wanted.
#define QNC_LOG(severity, result, source, message)                                     \
  do {                                                                                 \
    if (::qnc::debug::Log::isEnabled(severity))                                        \
      ::qnc::debug::Log::write(severity, result, source, __func__, __LINE__, message); \
  } while (false)
