#include "cli/Console.h"

#include <cerrno>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

#include "cli/Text.h"

namespace cli {
namespace {

// In one piece, so that lines of several processes on one terminal stay lines.
void writeAll(const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(STDERR_FILENO, text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;  // nobody is left to be told
    written += static_cast<size_t>(count);
  }
}

winsize terminalSize() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
    size.ws_col = 80;
    size.ws_row = 24;
  }
  return size;
}

}  // namespace

Console& Console::shared() {
  static auto& console = *new Console;  // kept for threads that outlive main
  return console;
}

Console::Console() : terminal_(::isatty(STDERR_FILENO) == 1) {}

void Console::setQuiet(bool quiet) {
  const platform::MutexLock lock(mutex_);
  quiet_ = quiet;
}

size_t Console::columns() const {
  return terminalSize().ws_col;
}
size_t Console::rows() const {
  return terminalSize().ws_row;
}

void Console::note(const std::string& text) {
  if (text.empty()) return;
  const platform::MutexLock lock(mutex_);
  if (!quiet_) _print(forTerminal(text) + "\n");
}

void Console::fail(const std::string& text, const std::vector<std::string>& details) {
  std::string lines = "qnmovie: " + forTerminal(text) + "\n";
  for (const std::string& detail : details)
    lines += forTerminal(detail) + "\n";
  const platform::MutexLock lock(mutex_);
  _print(lines);
}

void Console::setLive(std::vector<std::string> lines) {
  const platform::MutexLock lock(mutex_);
  if (!terminal_ || quiet_) return;
  std::string out = _erased();
  live_ = std::move(lines);
  writeAll(out + _live());
}

// The cursor stands at the start of the line below the block.
std::string Console::_erased() const {
  if (live_.empty()) return {};
  return "\x1b[" + std::to_string(live_.size()) + "A\r\x1b[J";
}

std::string Console::_live() const {
  std::string out;
  const size_t width = columns() - 1;  // a full line would wrap on some terminals
  for (const std::string& line : live_)
    out += fitted(forTerminal(line), width) + "\n";
  return out;
}

void Console::_print(const std::string& line) {
  if (line.empty()) return;
  writeAll(_erased() + line + _live());
}

}  // namespace cli
