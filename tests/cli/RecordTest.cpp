#include <gtest/gtest.h>
#include <sys/stat.h>

#include "cli/Failure.h"
#include "cli/Record.h"
#include "cli/Wanted.h"
#include "tests/support/TempDirectory.h"

namespace {

using cli::Record;
using platform::JSON;

Record sampleRecord() {
  Record record;
  record.url = "http://h/m.mpd?a=\"b\"";
  record.root = "/some/root";
  record.choice = {{"720p", "v\n1"}, {}, {"none"}, false};
  record.headers.set("X-Key", "a: b");
  record.headers.set("Cookie", "c");
  record.headerOrigins = {"https://h:443"};
  record.intent = Record::Intent::Pause;
  return record;
}

TEST(RecordTest, ComesBackAsItWasWrittenAndIsPrivate) {
  const qntest::TempDirectory directory;
  const std::string path = directory.path("state/record.json");
  EXPECT_FALSE(Record::read(path));
  sampleRecord().write(path);
  EXPECT_EQ(Record::read(path), sampleRecord());
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);
  ASSERT_EQ(::stat(directory.path("state").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700U);

  Record second = sampleRecord();
  second.choice.all = true;
  second.write(path);
  EXPECT_EQ(Record::read(path), second);
  Record::remove(path);
  EXPECT_FALSE(Record::read(path));
}

TEST(RecordTest, WhatIsDamagedIsSetAside) {
  const qntest::TempDirectory directory;
  const std::string path = directory.path("record.json");
  const char* const rows[] = {"",
                              "{",
                              "[]",
                              "{}",
                              R"({"version":2,"url":"u","root":"r"})",
                              R"({"version":1,"url":5,"root":"r"})",
                              R"({"version":1,"url":"u"})"};
  for (const char* text : rows) {
    directory.write("record.json", text);
    EXPECT_FALSE(Record::read(path)) << text;
    EXPECT_EQ(qntest::readFile(path + ".damaged"), text);
    EXPECT_FALSE(qntest::readFile(path)) << text;
  }
  // What cannot be read, as a directory cannot, is not known to be damaged.
  EXPECT_THROW(Record::read(directory.path()), cli::Failure);
  EXPECT_TRUE(qntest::readFile(path + ".damaged")) << "it was moved away";
  // Members of a wrong type, or unknown ones, cost only themselves.
  directory.write(
      "record.json",
      R"({"version":1,"url":"u","root":"r","choice":{"video":[1,"x"],"all":3},"headers":[],"intent":0,"y":1})");
  Record expected;
  expected.url = "u";
  expected.root = "r";
  expected.choice.video = {"x"};
  EXPECT_EQ(Record::read(path), expected);
}

TEST(RecordTest, SaysWhereItCannotBeWritten) {
  const qntest::TempDirectory directory;
  const std::string file = directory.write("file", "");
  try {
    sampleRecord().write(file + "/record.json");
    FAIL();
  } catch (const cli::Failure& failure) {
    EXPECT_EQ(failure.code(), cli::ExitCannotWrite);
    EXPECT_NE(failure.message().find(file), std::string::npos);
  }
}

TEST(WantedTest, CompleteMeansEverythingThatWasAskedFor) {
  struct Row {
    const char* wanted;
    std::vector<std::string> identifiers;
    uint64_t video, audio;
    size_t ofWanted, stored;
  };
  const char* const one = R"({"choice":{},"qualities":[{"type":"video","identifier":"v"}]})";
  const char* const both =
      R"({"qualities":[{"type":"video","identifier":"0"},{"type":"audio","identifier":"0"}]})";
  const Row rows[] = {
      {one, {}, 0, 0, 1, 0},
      {one, {"v"}, 1, 0, 1, 1},
      {one, {"w"}, 1, 0, 1, 0},
      {one, {"w", "v"}, 2, 0, 1, 1},
      // One identifier in two tracks.
      {both, {"0"}, 1, 0, 2, 1},
      {both, {"0"}, 0, 1, 2, 1},
      {both, {"0", "0"}, 1, 1, 2, 2},
      {both, {"0", "0"}, 2, 0, 2, 1},
      // Nothing is known, or it is damaged: not complete.
      {R"({})", {"v"}, 1, 0, 0, 0},
      {R"("text")", {"v"}, 1, 0, 0, 0},
      {R"({"qualities":[7]})", {"v"}, 1, 0, 1, 0},
  };
  for (const Row& row : rows) {
    const qntest::TempDirectory directory;
    const auto properties = QNMutableMovieDownloadProperties::propertiesWithSourceURL(
        "http://h/m", directory.path(), "manifest.mpd", QNMoviePropertiesFileName);
    ASSERT_TRUE(properties);
    properties->setObjectForKey(*JSON::parse(row.wanted), cli::WantedKey);
    properties->setDownloadedQualityIdentifiers(row.identifiers);
    properties->setNumberOfDownloadedVideoQualities(row.video);
    properties->setNumberOfDownloadedAudioQualities(row.audio);
    const cli::StoredExtent extent = cli::storedExtent(*properties);
    EXPECT_EQ(extent.wanted, row.ofWanted) << row.wanted;
    EXPECT_EQ(extent.stored, row.stored) << row.wanted << ::testing::PrintToString(row.identifiers);
    EXPECT_EQ(extent.isComplete(), row.ofWanted > 0 && row.stored == row.ofWanted);
  }
}

}  // namespace
