#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "engine/QNMovieDownloadProperties.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/host/QNLog.h"
#include "tests/support/ManualQueue.h"
#include "tests/support/ScriptedFileManager.h"
#include "tests/support/TempDirectory.h"

namespace {

using platform::JSON;
using qntest::readFile;

class Properties : public testing::Test {
 protected:
  Properties() {
    files.setFast();
    QNSetLogTap([](int) { return true; },
                [this](int level, const std::string& message) {
                  log +=
                      std::to_string(level) + " " + message.substr(0, message.find(": /")) + "\n";
                });
  }
  ~Properties() override { QNSetLogTap(nullptr, nullptr); }

  std::shared_ptr<QNMovieDownloadProperties> read() {
    return QNMovieDownloadProperties::propertiesWithLocalPath(directory.path(),
                                                              QNMoviePropertiesFileName);
  }
  std::shared_ptr<QNMutableMovieDownloadProperties> create(const std::string& url = "u",
                                                           const std::string& name = "m") {
    return QNMutableMovieDownloadProperties::propertiesWithSourceURL(url, directory.path(), name,
                                                                     QNMoviePropertiesFileName);
  }
  std::string text() { return readFile(directory.path(QNMoviePropertiesFileName)).value_or("-"); }

  qntest::TempDirectory directory;
  qntest::ScriptedFileManager files;
  std::string log;
};

TEST_F(Properties, ReadsWhatIsThereAndTellsWhyItCannot) {
  struct Row {
    const char* text;  // null: no file
    const char* log;   // its beginning
  };
  const Row rows[] = {
      {nullptr, "16 Error: Failed to open JSON file for reading: Cannot read"},
      {"", "16 Error: Failed to read JSON file"},
      {"{", "16 Error: Failed to read JSON file"},
      {"{}", "16 Error: No source URL in JSON file\n"},
      {"[]", "16 Error: No source URL in JSON file\n"},
      {"5", "16 Error: No source URL in JSON file\n"},
      {R"({"QNDownloadSetSourceURL":"u"})", "16 Error: No manifest name in JSON file\n"},
      {R"({"QNDownloadSetSourceURL":1,"QNDownloadSetManifestName":[]})", ""},
  };
  for (const Row& row : rows) {
    log.clear();
    if (row.text) directory.write(QNMoviePropertiesFileName, row.text);
    const auto properties = read();
    EXPECT_EQ(log.substr(0, std::string(row.log).size()), row.log);
    EXPECT_EQ(properties != nullptr, row.log[0] == '\0');
    if (!properties) continue;
    EXPECT_EQ(properties->sourceURL(), std::nullopt) << "of another type";
    EXPECT_EQ(properties->title(), std::nullopt);
    EXPECT_EQ(properties->numberOfDownloadedQualities(), 0U);
    EXPECT_EQ(properties->numberOfDownloadedTextQualities(), 0U);
    EXPECT_EQ(properties->downloadedQualityIdentifiers(), std::nullopt);
  }
}

TEST_F(Properties, StartsAFileWithTwoMembersAndKeepsWhatItFinds) {
  EXPECT_EQ(create()->localURL(), "file://" + directory.path() + "/m");
  EXPECT_EQ(text(), R"({"QNDownloadSetSourceURL":"u","QNDownloadSetManifestName":"m"})");
  directory.write(QNMoviePropertiesFileName,
                  R"({"Own":{"x":[1,2.5]},"QNDownloadSetSourceURL":"u","QNDownloadSetTitle":"t",)"
                  R"("QNDownloadSetManifestName":"m","QNNumberOfDownloadedQualities":3,)"
                  R"("QNDownloadedQualityIdentifiers":["b","a",7]})");
  const auto properties = create();
  EXPECT_EQ(properties->title(), "t");
  EXPECT_EQ(properties->numberOfDownloadedQualities(), 3U);
  EXPECT_EQ(properties->downloadedQualityIdentifiers(), (std::vector<std::string>{"b", "a"}));
  properties->setTitle(std::nullopt);
  properties->setNumberOfDownloadedVideoQualities(2);
  properties->setDownloadedQualityIdentifiers({"z"});
  EXPECT_EQ(text(),
            R"({"Own":{"x":[1,2.5]},"QNDownloadSetSourceURL":"u","QNDownloadSetManifestName":"m",)"
            R"("QNNumberOfDownloadedQualities":3,"QNDownloadedQualityIdentifiers":["z"],)"
            R"("QNNumberOfDownloadedVideoQualities":2})");
}

TEST_F(Properties, HasAnObjectOfAnotherDownloadForABug) {
  create();
  for (const auto& [url, name, reason, line] :
       {std::tuple("v", "m", "Error: Mismatching source URLs", 264),
        std::tuple("u", "n", "Error: Mismatching manifest names", 266)}) {
    try {
      create(url, name);
      ADD_FAILURE() << reason;
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
      EXPECT_EQ(exception.reason(), reason);
      EXPECT_EQ(std::any_cast<int64_t>(exception.userInfo().at("line")), line);
      EXPECT_EQ(std::any_cast<std::string>(exception.userInfo().at("source")),
                "QNMovieDownloadProperties");
    }
  }
}

TEST_F(Properties, WritesAtOnceAndACounterTwice) {
  const auto properties = create();
  int writes = 0;
  files.setFault([&](const auto& method, const auto&) {
    writes += method == "writeAtomically";
    return 0;
  });
  properties->setTitle("t");
  EXPECT_EQ(std::exchange(writes, 0), 1);
  properties->setNumberOfDownloadedQualities(1);
  EXPECT_EQ(std::exchange(writes, 0), 2);
  properties->setDownloadedQualityIdentifiers({"a"});
  EXPECT_EQ(std::exchange(writes, 0), 2);
  properties->removeObjectForKey(QNTitleKey);
  EXPECT_EQ(std::exchange(writes, 0), 1);
}

TEST_F(Properties, KeepsInMemoryWhatCannotBeWritten) {
  const auto properties = create();
  for (const auto& [errnum, message] :
       {std::pair(EACCES, "16 Error: Failed to open JSON file for writing"),
        std::pair(ENOSPC, "0 Error: Failed to write JSON file")}) {
    log.clear();
    files.setFault([errnum = errnum](const auto&, const auto&) { return errnum; });
    properties->setTitle("kept");
    EXPECT_EQ(log.substr(0, std::string(message).size()), message);
    files.setFault(nullptr);
    EXPECT_EQ(properties->title(), "kept");
    EXPECT_EQ(text().find("kept"), std::string::npos);
    EXPECT_EQ(read(), properties) << "a reader sees what is to be written";
    EXPECT_EQ(properties->title(), "kept");
  }
  properties->setObjectForKey(1, "Own");
  EXPECT_NE(text().find("kept"), std::string::npos);
}

TEST_F(Properties, CoalescesScheduledWrites) {
  const qntest::ManualBackgroundQueue queue;
  auto properties = create();
  int writes = 0;
  properties->_scheduleWriteJSON();
  properties->_scheduleWriteJSON();
  properties->setTitle("latest");
  files.setFault([&](const auto&, const auto&) { return ++writes, 0; });
  EXPECT_TRUE(properties->writeQueued());
  EXPECT_EQ(queue->run(), 1U);
  EXPECT_FALSE(properties->writeQueued());
  EXPECT_EQ(writes, 1);
  properties->_scheduleWriteJSON();
  properties.reset();
  EXPECT_EQ(queue->run(), 1U);
  EXPECT_EQ(writes, 1) << "an object that is gone is not written";
}

TEST_F(Properties, OfARemovedDownloadAreThoseOfTheNextInItsPlace) {
  const auto held = create();
  held->setNumberOfDownloadedQualities(5);
  ASSERT_EQ(platform::FileManager::defaultManager().removeItem(held->jsonPath()), nullptr);
  EXPECT_EQ(read(), nullptr);
  const auto next = create("v", "n");
  EXPECT_EQ(next, held);
  EXPECT_EQ(next->numberOfDownloadedQualities(), 0U);
  EXPECT_EQ(next->sourceURL(), "v");
}

}  // namespace
