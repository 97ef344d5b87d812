#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "qnc/qncLog.h"

namespace {

using qnc::Result;
using qnc::debug::Level;
using qnc::debug::Log;

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    level_ = Log::level();
    former_ = Log::setSink([this](const Log::Record&, std::string_view line) {
      ++count_;
      last_ = line;
    });
  }
  void TearDown() override {
    Log::setSink(former_);
    Log::setLevel(level_);
  }

  Level level_ = Level::WARNING;
  Log::Sink former_;
  std::atomic<int> count_ = 0;
  std::string last_;
};

TEST(LogLine, HasItsFormat) {
  const struct {
    Log::Record record;
    const char* expected;
  } rows[] = {
      {{Level::WARNING, Result::Success, "libs/mpl/src/mpl/dash/MediaPresentationDescription",
        "parsePSSHBoxUUID", 12, "Unsupported pssh box version"},
       "[0061.007] <0x0000abcd> WARNING: "
       "[libs/mpl/src/mpl/dash/MediaPresentationDescription:12] Unsupported pssh box version"},
      {{Level::FATAL, Result::CouldNotConnect, "s", "f", 0, "m"},
       "[0061.007] <0x0000abcd> FATAL: [s:0] m: Couldn't connect"},
      // what a manifest holds never starts a line of its own
      {{Level::ERROR, Result::Success, "s", "f", 1, "a\nb\r\x1B%s"},
       "[0061.007] <0x0000abcd> ERROR: [s:1] a b  %s"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Log::formatLine(row.record, 61, 7, 0xABCD), row.expected);
}

TEST(LogLine, NamesLevelsAndResults) {
  const char* levels[] = {"TRACE", "INFO", "DEBUG", "WARNING", "ERROR", "FATAL"};
  for (uint32_t i = 0; i < 6; ++i)
    EXPECT_STREQ(Log::levelName(static_cast<Level>(i)), levels[i]);
  const char* texts[] = {
      "Success",           "Already initialized", "Already destroyed", "Invalid handle",
      "Invalid arguments", "Invalid format",      "Invalid object",    "Invalid credentials",
      "Not available",     "Permission denied",   "Out of range",      "Out of memory",
      "I/O error",         "End of file",         "Invalid response",  "Couldn't connect",
      "Not initialized",   "Unsupported feature", "Unknown error"};
  for (uint32_t i = 0; i < 19; ++i)
    EXPECT_STREQ(Log::getErrorCodeString(i), texts[i]);
  EXPECT_STREQ(Log::getErrorCodeString(0xFFFF), "General failure");
  EXPECT_STREQ(Log::getErrorCodeString(0xFFFFFFFF), "Unknown error");
}

TEST_F(LogTest, DropsWhatIsBelowTheLevelUnevaluated) {
  int evaluated = 0;
  const auto message = [&] {
    ++evaluated;
    return "m";
  };
  Log::setLevel(Level::ERROR);
  QNC_LOG(Level::WARNING, Result::Success, "s", message());
  EXPECT_EQ(evaluated + count_, 0);
  QNC_LOG(Level::ERROR, Result::Success, "s", message());
  EXPECT_EQ(evaluated + count_, 2);
  EXPECT_TRUE(std::regex_match(
      last_, std::regex(R"(\[[0-3]\d{3}\.\d{3}\] <0x[0-9a-f]{8}> ERROR: \[s:\d+\] m)")))
      << last_;
}

TEST_F(LogTest, ASinkMayLogAndMayBeReplaced) {
  Log::setSink([&](const Log::Record& record, std::string_view) {
    if (++count_ < 3) Log::write(record);
    Log::setSink({});
  });
  Log::write(Level::ERROR, Result::Success, "s", "f", 1, "m");
  EXPECT_EQ(count_, 3);
}

TEST_F(LogTest, TakesMessagesFromManyThreads) {
  std::vector<std::thread> threads;
  std::atomic<int> count = 0;
  Log::setSink([&](const Log::Record& record, std::string_view line) {
    if (line.ends_with(record.message)) ++count;
  });
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = 0; n < 200; ++n) {
        QNC_LOG(Level::ERROR, Result::Success, "s", std::to_string(i * 1000 + n));
        Log::setLevel(n % 2 ? Level::WARNING : Level::TRACE);
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(count, 800);
}

}  // namespace
