#include <random>
#include <set>

#include <gtest/gtest.h>

#include "engine/QNDownloadTypes.h"
#include "engine/QNIndexSet.h"
#include "engine/QNResourceId.h"
#include "engine/QNResourcePath.h"

namespace {

TEST(DownloadProgress, IsAFractionOfWhatIsExpectedAndNeverClamped) {
  struct Row {
    int64_t downloaded;
    QNDownloadSize expected;
    float value;
    bool estimated;
  };
  const Row rows[] = {
      {500, {1000, false}, 0.5F, false},
      {500, {1000, true}, 0.5F, true},
      {0, {1, false}, 0.0F, false},
      {1500, {1000, false}, 1.5F, false},
      {1, {3, true}, 1.0F / 3, true},
      {-1000, {1000, false}, -1.0F, false},
      // Nothing to be measured against.
      {500, {0, false}, -1.0F, true},
      {500, QNDownloadSizeUnknown, -1.0F, true},
      {500, {-7, false}, -1.0F, true},
  };
  for (const Row& row : rows) {
    const QNDownloadProgress progress = QNDownloadProgressCompute(row.downloaded, row.expected);
    EXPECT_EQ(progress.value, row.value) << row.downloaded << " of " << row.expected.value;
    EXPECT_EQ(progress.estimated, row.estimated) << row.downloaded << " of " << row.expected.value;
  }
  EXPECT_TRUE(QNDownloadProgressIsUnknown(QNMakeDownloadProgress(-1.0F, false)));
}

TEST(DownloadSize, ComparesValueAndFlagAndIsUnknownByValueAlone) {
  EXPECT_TRUE(QNDownloadSizeIsUnknown(QNMakeDownloadSize(-1, false)));
  EXPECT_FALSE(QNDownloadSizeIsUnknown(QNDownloadSizeZero));
  EXPECT_TRUE(QNDownloadSizeIsEqual({5, true}, {5, true}));
  EXPECT_FALSE(QNDownloadSizeIsEqual({5, true}, {5, false}));
  EXPECT_FALSE(QNDownloadSizeIsEqual({5, true}, {6, true}));
}

TEST(Headers, AreNamedWithoutRegardToCase) {
  QNHeaders headers{{"Authorization", "a"}, {"X-Token", "b"}};
  headers["AUTHORIZATION"] = "c";
  EXPECT_EQ(headers.size(), 2U);
  EXPECT_EQ(headers["authorization"], "c");
}

TEST(IndexSet, AgreesWithAPlainSet) {
  for (const size_t size : {0, 1, 63, 64, 65, 4096, 4097, 70000}) {
    QNIndexSet set(size, true);
    std::set<size_t> plain;
    for (size_t i = 0; i < size; ++i)
      plain.insert(i);
    std::mt19937 random(static_cast<unsigned>(size));
    for (int step = 0; step < 20000 && size > 0; ++step) {
      const size_t index = random() % size;
      const bool present = random() % 3 == 0;
      set.assign(index, present);
      present ? (void)plain.insert(index) : (void)plain.erase(index);
      const size_t from = random() % (size + 2);
      const auto next = plain.lower_bound(from);
      ASSERT_EQ(set.next(from), next == plain.end() ? QNIndexSet::none : *next)
          << size << " from " << from;
      ASSERT_EQ(set.contains(index), present);
    }
    EXPECT_EQ(set.empty(), plain.empty());
  }
}

TEST(ResourceId, ReadsWhatItWroteAndTakesAnythingElseAsAbsent) {
  const QNResourceId id("http://h/m.mpd?a=\"1\"", "v\xc3\xa9", 7, 2);
  const auto read = QNResourceId::resourceIdWithJSONString(id.serializeToJSON());
  EXPECT_EQ(read->manifestURL(), id.manifestURL());
  EXPECT_EQ(read->qualityId(), id.qualityId());
  EXPECT_EQ(read->resourceIndex(), 7U);
  EXPECT_EQ(read->status(), 2U);
  EXPECT_EQ(QNResourceId("u", "q", 0, 1).serializeToJSON(),
            R"({"QNManifestURL":"u","QNQualityId":"q","QNResourceIndex":0,"QNStatus":1})");

  struct Row {
    const char* text;
    const char* manifestURL;
    uint64_t index;
    uint64_t status;
  };
  const Row rows[] = {
      {"", nullptr, 0, 0},
      {"{}", nullptr, 0, 0},
      {"[1]", nullptr, 0, 0},
      {"not JSON", nullptr, 0, 0},
      {R"({"QNStatus":2,"QNManifestURL":"u","Else":[{}],"QNResourceIndex":3})", "u", 3, 2},
      {R"({"QNManifestURL":5,"QNResourceIndex":"3","QNStatus":null})", nullptr, 0, 0},
      {R"({"QNResourceIndex":-1,"QNStatus":1.5})", nullptr, 0, 0},
      {R"({"QNResourceIndex":18446744073709551615})", nullptr, UINT64_MAX, 0},
  };
  for (const Row& row : rows) {
    const auto parsed = QNResourceId::resourceIdWithJSONString(row.text);
    EXPECT_EQ(parsed->manifestURL().value_or("-"), row.manifestURL ? row.manifestURL : "-")
        << row.text;
    EXPECT_EQ(parsed->resourceIndex(), row.index) << row.text;
    EXPECT_EQ(parsed->status(), row.status) << row.text;
  }
}

TEST(ResourcePath, StaysBelowTheDirectoryAndChangesNothingElse) {
  struct Row {
    std::string reference;
    std::string path;
    std::string place;    // what it means to the file system
    const char* refusal;  // part of it, null when a file can lie there
  };
  const std::string longName(300, 'x');
  const std::string kept = std::string(200, 'x') + "~";
  const Row rows[] = {
      // As they stand.
      {"seg/1.m4s", "seg/1.m4s", "seg/1.m4s", nullptr},
      {"a.mp4?token=1&x=a/b", "a.mp4?token=1&x=a/b", "a.mp4?token=1&x=a/b", nullptr},
      {"http://cdn:80/x/1.ts", "http://cdn:80/x/1.ts", "http:/cdn:80/x/1.ts", nullptr},
      {"/abs/1", "/abs/1", "abs/1", nullptr},
      {"./a/./b", "./a/./b", "a/b", nullptr},
      {"a/../b", "a/../b", "b", nullptr},
      {"...", "...", "...", nullptr},
      {"a..b/..c", "a..b/..c", "a..b/..c", nullptr},
      {"%2e%2e/x", "%2e%2e/x", "%2e%2e/x", nullptr},
      // Out of the directory, however it is written.
      {"../x", "%2E%2E/x", "%2E%2E/x", nullptr},
      {"../../x", "%2E%2E/%2E%2E/x", "%2E%2E/%2E%2E/x", nullptr},
      {"/../x", "/%2E%2E/x", "%2E%2E/x", nullptr},
      {"a/../../x", "a/../%2E%2E/x", "%2E%2E/x", nullptr},
      {"../a/../../b", "%2E%2E/a/../%2E%2E/b", "%2E%2E/%2E%2E/b", nullptr},
      {"a//../../b", "a//../%2E%2E/b", "%2E%2E/b", nullptr},
      {"./../b", "./%2E%2E/b", "%2E%2E/b", nullptr},
      {"a/..", "a/..", "", "the download directory itself"},
      {"..", "%2E%2E", "%2E%2E", nullptr},
      // Names that no file can have.
      {std::string("a\0b", 3), "a%00b", "a%00b", nullptr},
      // No file.
      {"", "", "", "the download directory itself"},
      {".", ".", "", "the download directory itself"},
      {"//", "//", "", "the download directory itself"},
      {"seg/", "seg/", "seg", "a directory"},
      {"seg/.", "seg/.", "seg", "a directory"},
      {"seg/a/..", "seg/a/..", "seg", "a directory"},
      {"manifest.mpd", "manifest.mpd", "manifest.mpd", "the stored manifest"},
      {"./a/..//manifest.mpd", "./a/..//manifest.mpd", "manifest.mpd", "the stored manifest"},
      {"Manifest.ism", "Manifest.ism", "Manifest.ism", "the stored manifest"},
      {"/QNMovieDownloadSetProperties.json", "/QNMovieDownloadSetProperties.json",
       "QNMovieDownloadSetProperties.json", "the properties file"},
      {"qnmoviedownloadsetproperties.json.damaged", "qnmoviedownloadsetproperties.json.damaged",
       "qnmoviedownloadsetproperties.json.damaged", "the properties file"},
      {"QNMovieDownloadRecord.JSON", "QNMovieDownloadRecord.JSON", "QNMovieDownloadRecord.JSON",
       "the record of stored files"},
      {"a/.qn-1.tmp", "a/%2Eqn-1.tmp", "a/%2Eqn-1.tmp", nullptr},
      {"x/manifest.mpd", "x/manifest.mpd", "x/manifest.mpd", nullptr},
      {"manifest.mpd?1", "manifest.mpd?1", "manifest.mpd?1", nullptr},
  };
  for (const Row& row : rows) {
    const std::string path = QNRelativeResourcePath(row.reference);
    EXPECT_EQ(path, row.path) << row.reference;
    EXPECT_EQ(QNNormalisedPath(path), row.place) << row.reference;
    const auto refusal = QNRefusalOfPlace(path, "Manifest.ism");
    EXPECT_EQ(refusal.has_value(), row.refusal != nullptr) << row.reference;
    if (refusal && row.refusal) {
      EXPECT_NE(refusal->find(row.refusal), std::string::npos) << *refusal;
    }
  }
  // A name of 255 bytes is one, a longer one is not.
  EXPECT_EQ(QNRelativeResourcePath(longName.substr(0, 255)), longName.substr(0, 255));
  const std::string shortened = QNRelativeResourcePath("a/" + longName + "/b");
  EXPECT_EQ(shortened.substr(0, 203), "a/" + kept);
  EXPECT_EQ(shortened.size(), 2 + 201 + 16 + 2);
  EXPECT_NE(shortened, QNRelativeResourcePath("a/" + longName + "y/b"));
  // The cut keeps characters whole; what is no UTF-8 is cut where it stands.
  const std::string umlauts =
      QNRelativeResourcePath("x" + longName.substr(0, 198) + "\u00e4\u00e4" + longName);
  EXPECT_EQ(umlauts.substr(0, 200), "x" + longName.substr(0, 198) + "~");
  EXPECT_EQ(QNRelativeResourcePath(std::string(300, '\x80')).substr(0, 201),
            std::string(200, '\x80') + "~");
  EXPECT_TRUE(QNRefusalOfPlace("MANIFEST.mpd", "m", true));
  EXPECT_FALSE(QNRefusalOfPlace("MANIFEST.mpd", "m", false));
  EXPECT_EQ(QNFoldedCase("A\u00c4\xff/b"), "a\u00e4\xff/b");
}

}  // namespace
