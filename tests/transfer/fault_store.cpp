// What a launch finds where its store should be.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <ostream>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "platform/Exception.h"
#include "platform/Log.h"
#include "tests/support/TestContent.h"
#include "tests/transfer/ContractHarness.h"
#include "tests/transfer/MovieRun.h"

namespace qntest {
namespace {

constexpr uint64_t kSize = 200000;
constexpr int64_t kHalf = 100000;

// The session's database, found by what it is.
std::string databaseBelow(const std::string& directory) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (!entry.is_regular_file()) continue;
    const auto bytes = readFile(entry.path());
    if (bytes && bytes->rfind("SQLite format 3", 0) == 0) return entry.path();
  }
  ADD_FAILURE() << "no database below " << directory;
  return "";
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string noise(size_t size) {
  std::mt19937 random(7);
  std::string bytes(size, '\0');
  for (char& byte : bytes)
    byte = static_cast<char>(random());
  return bytes;
}

struct DamageRow {
  const char* name;
  std::function<std::string(const std::string& database)> damage;
  bool told = true;  // the damage is certain to be found
};

std::ostream& operator<<(std::ostream& out, const DamageRow& row) {
  return out << row.name;
}

class DamagedStore : public testing::TestWithParam<DamageRow> {};

TEST_P(DamagedStore, IsSetAsideAndTheSessionGoesOn) {
  TransferHarness harness;
  harness.serveHeld("/a", kSize, kHalf);
  Application app(harness);
  app.launch();
  for (int i = 0; i < 50; ++i)
    app.make("/a")->setTaskDescription(std::string(200, 'x'));
  const auto task = app.start("/a");
  ASSERT_TRUE(app.recorder->waitForBytes(task->taskIdentifier(), kHalf));
  task->suspend();
  app.relaunch();  // now nothing happens any more, and closing is done when it returns
  app.close();
  const std::string database = databaseBelow(harness.stateDirectory());
  const std::string damaged = GetParam().damage(readFile(database).value_or(""));
  writeFile(database, damaged);

  std::string told;
  platform::setErrorLog([&](const std::string& message) { told += message + "\n"; });
  const auto tasks = app.launch();
  platform::setErrorLog(nullptr);
  if (GetParam().told) {
    EXPECT_TRUE(tasks.empty());
    EXPECT_NE(told.find("state lost"), std::string::npos) << told;
    EXPECT_NE(told.find(database), std::string::npos) << told;
    bool kept = false;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(harness.stateDirectory()))
      kept = kept || (entry.is_regular_file() && readFile(entry.path()) == damaged);
    EXPECT_TRUE(kept) << "the damaged database is not there any more";
  }
  // Whatever was found, the session works, and nothing of the old state mixes with the new.
  harness.serve("/a", kSize);
  const auto again = app.start("/a");
  const auto events = app.completed(again);
  EXPECT_EQ(events.summary(), "wfc 200");
  EXPECT_EQ(compareWithContent(events.files.at(0), "/a", 0, kSize), "");
}

INSTANTIATE_TEST_SUITE_P(
    Store, DamagedStore,
    testing::Values(
        DamageRow{"Noise", [](const std::string& all) { return noise(all.size()); }},
        DamageRow{"NoiseInTheHead",
                  [](const std::string& all) { return noise(200) + all.substr(200); }},
        DamageRow{
            "NoiseBehindTheHead",
            [](const std::string& all) { return all.substr(0, 4096) + noise(all.size() - 4096); }},
        DamageRow{"TruncatedInTheMiddle",
                  [](const std::string& all) { return all.substr(0, all.size() / 2); }},
        DamageRow{"TruncatedInAPage",
                  [](const std::string& all) { return all.substr(0, all.size() - 1000); }},
        DamageRow{"TruncatedInTheHead", [](const std::string& all) { return all.substr(0, 50); }},
        DamageRow{"Text", [](const std::string&) { return std::string("no database\n"); }},
        DamageRow{"Empty", [](const std::string&) { return std::string(); }, false}),
    [](const auto& info) { return info.param.name; });

TEST(StoreVersion, ANewerOneIsRefusedAndLeftAsItIs) {
  TransferHarness harness;
  Application app(harness);
  app.launch();
  app.make("/a");
  app.close();
  const std::string database = databaseBelow(harness.stateDirectory());
  sqlite3* connection = nullptr;
  ASSERT_EQ(sqlite3_open(database.c_str(), &connection), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(connection, "PRAGMA user_version = 9999", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(connection);
  const auto before = readFile(database);
  try {
    app.launch();
    FAIL() << "it was opened";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSURLSessionException");
    EXPECT_NE(exception.reason().find("newer"), std::string::npos) << exception.reason();
    EXPECT_NE(exception.reason().find(database), std::string::npos) << exception.reason();
  }
  EXPECT_EQ(readFile(database), before);
}

TEST(StorePlace, ThatCannotBeUsedIsNamed) {
  TransferHarness harness;
  writeFile(harness.stateDirectory(), "a file where a directory should be");
  Application app(harness);
  try {
    app.launch();
    FAIL() << "it was opened";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSURLSessionException");
    EXPECT_NE(exception.reason().find(harness.stateDirectory()), std::string::npos)
        << exception.reason();
  }
}

class HeldStore : public testing::Test {
 protected:
  HeldStore() {
    harness.configuration().identifier = run.plan().identifier;
    harness.configuration().stateDirectory = run.state();
    harness.configuration().partialDirectory = run.partial();
    Fault slow;
    slow.bytesPerSecond = 1000;
    run.server().setChooser([slow](const FaultRequest&) { return slow; });
    run.start("hold");
    EXPECT_TRUE(run.waitForLine("launch", kEventDeadlineSeconds));
  }
  MovieRun run{MoviePlan{}};
  TransferHarness harness;
  Application app{harness};
};

TEST_F(HeldStore, IsRefusedAndTheHolderNamed) {
  const auto start = std::chrono::steady_clock::now();
  try {
    app.launch();
    FAIL() << "it was opened";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSURLSessionException");
    EXPECT_NE(exception.reason().find(run.plan().identifier), std::string::npos)
        << exception.reason();
    EXPECT_NE(exception.reason().find(std::to_string(run.child().pid())), std::string::npos)
        << exception.reason();
  }
  const double waited =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GT(waited, 1) << "a dying holder is waited for";
  EXPECT_LT(waited, 15);
  EXPECT_FALSE(run.child().wait(0)) << "the holder is not disturbed";
}

TEST_F(HeldStore, IsTakenOverFromADyingHolder) {
  auto opened = std::async(std::launch::async, [&] { return app.launch().size(); });
  EXPECT_EQ(opened.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
  run.child().kill();
  EXPECT_GT(opened.get(), 0U) << "the holder's tasks";
}

}  // namespace
}  // namespace qntest
