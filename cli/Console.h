#pragma once

#include <string>
#include <vector>

#include "platform/Mutex.h"

namespace cli {

// Standard error: lines for a person, and below them a block of live lines that is drawn over
// itself. Everything is made safe for a terminal. Thread-safe.
class Console {
 public:
  static Console& shared();

  // No notices, no live lines; failures are still told.
  void setQuiet(bool quiet);
  bool isTerminal() const { return terminal_; }
  // Size of the terminal now; 80 x 24 when there is none.
  size_t columns() const;
  size_t rows() const;

  // A line that stays, not shown when quiet; an empty text is none.
  void note(const std::string& text);
  // "qnmovie: text" and the details below it, always shown.
  void fail(const std::string& text, const std::vector<std::string>& details = {});
  // Replaces the live block; nothing unless this is a terminal.
  void setLive(std::vector<std::string> lines);

  Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

 private:
  std::string _erased() const REQUIRES(mutex_);
  std::string _live() const REQUIRES(mutex_);
  void _print(const std::string& line) REQUIRES(mutex_);

  const bool terminal_;
  platform::Mutex mutex_;
  bool quiet_ GUARDED_BY(mutex_) = false;
  std::vector<std::string> live_ GUARDED_BY(mutex_);
};

}  // namespace cli
