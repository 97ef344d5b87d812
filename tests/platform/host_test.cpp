#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Log.h"
#include "platform/host/QNLog.h"
#include "platform/host/QNPlayerUtils.h"
#include "platform/host/QuillonStreamDownloaderInterface.h"
#include "tests/support/TempDirectory.h"

namespace {

class QNLogTest : public testing::Test {
 protected:
  void TearDown() override { QNSetLogTap(nullptr, nullptr); }
};

TEST_F(QNLogTest, TheTapChoosesAndReceives) {
  std::vector<std::string> seen;
  QNSetLogTap([](int level) { return level >= 8; },
              [&](int level, const std::string& message) {
                seen.push_back(std::to_string(level) + " " + message);
                QNLog(16, "from inside the tap");  // would wait for itself
              });
  EXPECT_FALSE(QNCheckLogTap(7, "%s"));
  EXPECT_TRUE(QNCheckLogTap(8, "%s"));
  QNLog(8, "one");
  platform::logError("two");
  EXPECT_EQ(seen, (std::vector<std::string>{"8 one", "16 two"}));
}

TEST_F(QNLogTest, MessagesComeOneAtATime) {
  int count = 0;  // unguarded on purpose: the tap is called by one thread at a time
  QNSetLogTap([](int) { return true; }, [&](int, const std::string&) { ++count; });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 100; ++i)
        QNLog(16, "x");
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(count, 400);
}

TEST_F(QNLogTest, WithoutATapErrorsGoToStandardError) {
  const struct {
    std::optional<std::string> variable;
    int least;
  } rows[] = {{std::nullopt, 16}, {"3", 3},   {"17", 17}, {"0", 0},
              {"loud", 16},       {"3x", 16}, {"", 16}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.variable.value_or("unset"));
    const qntest::ScopedEnvironment level("QN_LOG_LEVEL", row.variable);
    QNSetLogTap(nullptr, nullptr);
    EXPECT_FALSE(QNCheckLogTap(row.least - 1, "x"));
    EXPECT_TRUE(QNCheckLogTap(row.least, "x"));
  }
  testing::internal::CaptureStderr();
  QNLog(16, "100%s");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "100%s\n");
}

TEST_F(QNLogTest, ATapThatFailsLosesNothing) {
  QNSetLogTap([](int) { return true; },
              [](int, const std::string&) { throw std::runtime_error("tap"); });
  testing::internal::CaptureStderr();
  QNLog(16, "one");
  QNLog(16, "two");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "one\ntwo\n");
}

TEST(QNPlayerUtils, NamesLanguagesOrGivesTheCode) {
  const qntest::ScopedEnvironment locale("LC_ALL", "en_US.UTF-8");
  const struct {
    const char* code;
    const char* name;  // with ICU
  } rows[] = {
      {"de", "German"},
      {"deu", "German"},
      {"pt-BR", "Portuguese (Brazil)"},
      {"nb", "Norwegian Bokm\xC3\xA5l"},
      {"qaa", "qaa"},
      {"not a code", "not a code"},
      {"x", "x"},
      {"\xFF\xFE", "\xFF\xFE"},
      {"en\r\n", "en\r\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(QNPlayerUtils::localizedLanguage(row.code), QN_TEST_ICU ? row.name : row.code);
  }
  EXPECT_EQ(QNPlayerUtils::localizedLanguage(""), std::nullopt);
}

class SilentPlugin : public QuillonStreamDownloaderInterface {
 public:
  std::string getId() const override { return "Silent"; }
  std::optional<std::vector<std::string>> getDownloadedQualityIds(const std::string&) override {
    return std::nullopt;
  }
  static std::shared_ptr<QuillonStreamDownloaderInterface> create() {
    return std::make_shared<SilentPlugin>();
  }
  static std::shared_ptr<QuillonStreamDownloaderInterface> createNothing() { return nullptr; }
};

TEST(QuillonStreamDownloaderInterface, MakesPluginsThroughTheirFactories) {
  using Interface = QuillonStreamDownloaderInterface;
  const size_t before = Interface::factoryFunctions().size();
  EXPECT_EQ(Interface::pluginWithId("Silent"), nullptr);
  Interface::addFactoryFunction(nullptr);
  Interface::addFactoryFunction(SilentPlugin::createNothing);
  Interface::addFactoryFunction(SilentPlugin::create);
  Interface::addFactoryFunction(SilentPlugin::create);
  EXPECT_EQ(Interface::factoryFunctions().size(), before + 2);
  const auto plugin = Interface::pluginWithId("Silent");
  ASSERT_NE(plugin, nullptr);
  EXPECT_NE(plugin, Interface::pluginWithId("Silent")) << "each call makes a new one";
}

}  // namespace
