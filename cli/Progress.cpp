#include "cli/Progress.h"

#include <algorithm>
#include <cmath>

#include "cli/Text.h"

namespace cli {
namespace {

constexpr double kRateSeconds = 5;

// "42%", or " ?%" without an expectation; 100 only when it is true.
std::string percent(int64_t bytes, int64_t expected, bool complete) {
  std::string text = "?";
  if (complete) {
    text = "100";
  } else if (expected > 0) {
    const double share = static_cast<double>(bytes) / static_cast<double>(expected);
    text = std::to_string(std::clamp(static_cast<int>(std::floor(share * 100)), 0, 99));
  }
  return std::string(3 - std::min<size_t>(text.size(), 3), ' ') + text + "%";
}

std::string amount(int64_t bytes, int64_t expected, bool estimated) {
  std::string text = formatBytes(bytes);
  if (expected >= 0)
    text += std::string(" of ") + (estimated ? "~" : "") + formatBytes(std::max(bytes, expected));
  return text;
}

bool isComplete(const QualityFigures& quality) {
  return quality.state == QualityFigures::State::Complete;
}

std::string qualityLine(const QualityFigures& quality) {
  const bool complete = isComplete(quality);
  std::string line = "  " + percent(quality.bytes, quality.expected, complete) + "  " +
                     padded(quality.label, 34) + "  ";
  line += complete ? formatBytes(quality.bytes)
                   : amount(quality.bytes, quality.expected, quality.estimated);
  if (quality.state == QualityFigures::State::Failed) line += "  failed";
  return line;
}

std::string totalLine(const Figures& figures, double bytesPerSecond) {
  const int64_t bytes = figures.bytes();
  const int64_t expected = figures.expected();
  const bool complete = std::all_of(figures.qualities.begin(), figures.qualities.end(), isComplete);
  std::string line =
      percent(bytes, expected, complete) + "  " + amount(bytes, expected, figures.estimated());
  if (complete) return line;
  if (figures.paused) return line + "  paused";
  if (!figures.waiting.empty()) return line + "  " + figures.waiting;
  if (bytesPerSecond <= 0) return line;
  line += "  " + formatBytes(static_cast<int64_t>(bytesPerSecond)) + "/s";
  if (expected > bytes)
    line += "  " + formatSeconds(static_cast<double>(expected - bytes) / bytesPerSecond) + " left";
  return line;
}

}  // namespace

int64_t Figures::bytes() const {
  int64_t sum = 0;
  for (const QualityFigures& quality : qualities)
    sum += quality.bytes;
  return sum;
}

int64_t Figures::expected() const {
  int64_t sum = 0;
  for (const QualityFigures& quality : qualities) {
    if (quality.expected < 0) return -1;
    sum += quality.expected;
  }
  return sum;
}

bool Figures::estimated() const {
  return std::any_of(qualities.begin(), qualities.end(),
                     [](const auto& quality) { return quality.estimated; });
}

void RateMeter::add(double now, int64_t bytes) {
  samples_.emplace_back(now, bytes);
  while (samples_.size() > 2 && now - samples_.front().first > kRateSeconds)
    samples_.pop_front();
}

double RateMeter::bytesPerSecond() const {
  if (samples_.size() < 2) return 0;
  const double seconds = samples_.back().first - samples_.front().first;
  const auto bytes = static_cast<double>(samples_.back().second - samples_.front().second);
  return seconds > 0 && bytes > 0 ? bytes / seconds : 0;
}

bool Progress::isDue(double now) const {
  return now - last_ >= _interval();
}

double Progress::secondsUntilDue(double now) const {
  return std::max(0.0, last_ + _interval() - now);
}

void Progress::show(const Figures& figures, double now) {
  if (!isDue(now)) return;
  last_ = now;
  rate_.add(now, figures.bytes());
  if (console_.isTerminal()) {
    console_.setLive(progressLines(figures, rate_.bytesPerSecond(), console_.rows()));
  } else if (started_) {  // the first moment has nothing to tell
    console_.note(totalLine(figures, rate_.bytesPerSecond()));
  }
  started_ = true;
}

std::vector<std::string> progressLines(const Figures& figures, double bytesPerSecond, size_t rows) {
  std::vector<std::string> lines{totalLine(figures, bytesPerSecond)};
  const size_t room = rows > 3 ? rows - 3 : 1;  // the total, the line for the rest, the cursor
  std::vector<const QualityFigures*> shown;
  for (const QualityFigures& quality : figures.qualities)
    shown.push_back(&quality);
  if (shown.size() > room) {
    std::stable_partition(shown.begin(), shown.end(),
                          [](const auto* quality) { return !isComplete(*quality); });
  }
  for (size_t i = 0; i < std::min(room, shown.size()); ++i)
    lines.push_back(qualityLine(*shown[i]));
  if (shown.size() > room)
    lines.push_back("  and " + std::to_string(shown.size() - room) + " more");
  return lines;
}

}  // namespace cli
