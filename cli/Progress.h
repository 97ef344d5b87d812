#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "cli/Console.h"

namespace cli {

// How far one wanted quality is.
struct QualityFigures {
  enum class State { Waiting, Active, Complete, Failed };
  std::string label;
  State state = State::Waiting;
  int64_t bytes = 0;
  int64_t expected = -1;  // -1 unknown
  bool estimated = true;
};

struct Figures {
  std::vector<QualityFigures> qualities;
  bool paused = false;
  std::string waiting;  // why nothing moves, empty while something does

  // Sums over the qualities; expected is -1 as soon as one is unknown.
  int64_t bytes() const;
  int64_t expected() const;
  bool estimated() const;
};

// Bytes per second over the last seconds.
class RateMeter {
 public:
  void add(double now, int64_t bytes);
  double bytesPerSecond() const;  // 0 until two samples differ

 private:
  std::deque<std::pair<double, int64_t>> samples_;
};

// Shows figures: a live block on a terminal, drawn at most ten times a second, else a line every
// few seconds. Times are seconds of any steady clock.
class Progress {
 public:
  explicit Progress(Console& console) : console_(console) {}

  // Whether `show` would do anything now; figures need not be gathered before.
  bool isDue(double now) const;
  void show(const Figures& figures, double now);
  // Seconds until the next `show` is due.
  double secondsUntilDue(double now) const;
  void clear() { console_.setLive({}); }

 private:
  double _interval() const { return console_.isTerminal() ? 0.1 : 5; }

  Console& console_;
  RateMeter rate_;
  double last_ = -1e9;
  bool started_ = false;
};

// The lines of the live block: the whole, then the qualities as far as `rows` allows, unfinished
// ones first.
std::vector<std::string> progressLines(const Figures& figures, double bytesPerSecond, size_t rows);

}  // namespace cli
