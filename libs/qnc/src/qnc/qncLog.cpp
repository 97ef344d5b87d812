#include "qnc/qncLog.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>

#include <sys/syscall.h>
#include <unistd.h>

#include "qnc/qncSystem.h"

namespace qnc::debug {
namespace {

struct State {
  std::atomic<Level> level{Level::WARNING};
  std::mutex mutex;
  std::shared_ptr<const Log::Sink> sink;  // guarded by mutex; null for the standard one
};

// Never destroyed: messages may come from threads that outlive static objects.
State& state() {
  static State* const state = new State;
  return *state;
}

std::shared_ptr<const Log::Sink> currentSink() {
  const std::lock_guard lock(state().mutex);
  return state().sink;
}

// One line stays one line, whatever a manifest holds.
std::string withoutControls(std::string_view text) {
  std::string out(text);
  std::replace_if(
      out.begin(), out.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, ' ');
  return out;
}

std::string formatNow(const Log::Record& record) {
  using namespace std::chrono;
  const int64_t ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  const DateTime local = System::getLocalDateTime(static_cast<std::time_t>(ms / 1000));
  return Log::formatLine(record, local.minutes() * 60 + local.seconds(),
                         static_cast<uint32_t>(ms % 1000),
                         static_cast<uint32_t>(::syscall(SYS_gettid)));
}

}  // namespace

bool Log::isEnabled(Level level) {
  return level >= state().level.load(std::memory_order_relaxed);
}
Level Log::level() {
  return state().level;
}
void Log::setLevel(Level level) {
  state().level = level;
}

Log::Sink Log::setSink(Sink sink) {
  std::shared_ptr<const Sink> next;
  if (sink) next = std::make_shared<const Sink>(std::move(sink));
  {
    const std::lock_guard lock(state().mutex);
    state().sink.swap(next);
  }
  return next ? *next : Sink();
}

void Log::write(const Record& record) {
  if (!isEnabled(record.level)) return;
  const std::string line = formatNow(record);
  if (const auto sink = currentSink()) {
    (*sink)(record, line);
  } else {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

std::string Log::formatLine(const Record& record, uint32_t seconds, uint32_t milliseconds,
                            uint32_t threadId) {
  std::string suffix;
  if (failed(record.result)) suffix = std::string(": ") + getErrorCodeString(record.result);
  return FastString::format("[%04u.%03u] <0x%08x> %s: [%s:%u] %s%s", seconds, milliseconds,
                            threadId, levelName(record.level), record.source, record.line,
                            withoutControls(record.message).c_str(), suffix.c_str())
      .str();
}

const char* Log::getErrorCodeString(uint32_t code) {
  static constexpr const char* kTexts[] = {
      "Success",           "Already initialized", "Already destroyed", "Invalid handle",
      "Invalid arguments", "Invalid format",      "Invalid object",    "Invalid credentials",
      "Not available",     "Permission denied",   "Out of range",      "Out of memory",
      "I/O error",         "End of file",         "Invalid response",  "Couldn't connect",
      "Not initialized",   "Unsupported feature"};
  if (code < std::size(kTexts)) return kTexts[code];
  return code == static_cast<uint32_t>(Result::GeneralFailure) ? "General failure"
                                                               : "Unknown error";
}

const char* Log::levelName(Level level) {
  switch (level) {
    case Level::TRACE:
      return "TRACE";
    case Level::INFO:
      return "INFO";
    case Level::DEBUG:
      return "DEBUG";
    case Level::WARNING:
      return "WARNING";
    case Level::ERROR:
      return "ERROR";
    case Level::FATAL:
      return "FATAL";
  }
  return "?";
}

}  // namespace qnc::debug
