#include <algorithm>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileManager.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/UserNamespace.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using qntest::readFile;

int64_t codeOf(const ErrorPtr& error) {
  if (!error) return 0;
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_TRUE(error->stringForKey(NSFilePathErrorKey));
  return error->code();
}

unsigned modeOf(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
}

class FileManagerTest : public testing::Test {
 protected:
  std::string at(std::string_view name) const { return root.path(name); }
  // The names in the directory, sorted.
  std::string names(const std::string& path) {
    auto entries = files.contentsOfDirectory(path);
    if (!entries) return "unreadable";
    std::vector<std::string> sorted;
    for (const auto& entry : *entries) {
      sorted.push_back(entry.name + (entry.isDirectory ? "/" : entry.isRegular ? "" : "?"));
    }
    std::sort(sorted.begin(), sorted.end());
    std::string text;
    for (const auto& name : sorted)
      text += name + " ";
    return text;
  }
  ErrorPtr write(const std::string& path, std::string_view text) {
    return files.writeAtomically(path, text.data(), text.size());
  }

  qntest::TempDirectory root;
  FileManager& files = FileManager::defaultManager();
};

TEST_F(FileManagerTest, SeesWhatIsThere) {
  root.write("d/file", "12345");
  fs::create_directory(at("d/sub"));
  fs::create_symlink("file", at("d/toFile"));
  fs::create_symlink("sub", at("d/toSub"));
  fs::create_symlink("nothing", at("d/dangling"));
  mkfifo(at("d/pipe").c_str(), 0600);
  EXPECT_EQ(names(at("d")), "dangling? file pipe? sub/ toFile toSub/ ");

  const struct {
    const char* name;
    bool exists, isRegular, isDirectory;
    std::optional<int64_t> size;
  } rows[] = {
      {"d/file", true, true, false, 5},        {"d/toFile", true, true, false, 5},
      {"d/sub", true, false, true, {}},        {"d/toSub", true, false, true, {}},
      {"d/dangling", false, false, false, {}}, {"d/pipe", true, false, false, {}},
      {"d/none", false, false, false, {}},     {"d/file/below", false, false, false, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(files.fileExistsAtPath(at(row.name)), row.exists);
    EXPECT_EQ(files.isRegularFile(at(row.name)), row.isRegular);
    EXPECT_EQ(files.isDirectory(at(row.name)), row.isDirectory);
    EXPECT_EQ(files.sizeOfFile(at(row.name)), row.size);
  }
  EXPECT_FALSE(files.contentsOfDirectory(at("none")));
  EXPECT_FALSE(files.contentsOfDirectory(at("d/file")));
}

TEST_F(FileManagerTest, FolderSizeFollowsNoLinks) {
  root.write("outside/big", std::string(1000, 'x'));
  root.write("d/a", "123");
  root.write("d/b/c", "4567");
  fs::create_symlink(at("outside"), at("d/link"));
  fs::create_symlink(at("outside/big"), at("d/file link"));
  fs::create_symlink("..", at("d/b/loop"));
  fs::create_symlink(at("d"), at("root link"));
  EXPECT_EQ(files.folderSize(at("d")), 7);
  std::string listed;
  for (const auto& file : files.filesBelow(at("d"))) {
    listed += file.path + "=" + std::to_string(file.size) + " ";
  }
  EXPECT_EQ(listed, "a=3 b/c=4 ");
  EXPECT_EQ(files.folderSize(at("root link")), 7) << "the folder itself may be reached by a link";
  EXPECT_EQ(files.folderSize(at("none")), 0);
  EXPECT_EQ(files.folderSize(at("d/a")), 0);
}

TEST_F(FileManagerTest, CreatesDirectoriesOnTheWay) {
  root.write("file", "");
  fs::create_directory(at("there"));
  fs::create_symlink("there", at("link"));
  const struct {
    std::string path;
    int code;
  } rows[] = {
      {at("a/b/c"), 0},
      {at("a//b/./d/"), 0},
      {at("a/b/c"), 0},
      {at("link"), 0},
      {at("link/x/y"), 0},
      {at("file"), EEXIST},
      {at("file/x"), ENOTDIR},
      {at("file/x/y"), ENOTDIR},
      {at(std::string(256, 'n')), ENAMETOOLONG},
      {"", ENOENT},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(codeOf(files.createDirectoryWithIntermediates(row.path)), row.code);
    if (row.code == 0) {
      EXPECT_TRUE(files.isDirectory(row.path));
    }
  }
  EXPECT_TRUE(fs::is_directory(at("there/x/y")));
}

TEST_F(FileManagerTest, MovesReplaceFilesAndNeverDirectories) {
  fs::create_directories(at("empty"));
  root.write("full/x", "");
  root.write("file", "old");
  const struct {
    std::string from, to;
    int code;
  } rows[] = {
      {at("source"), at("new"), 0},         {at("source"), at("file"), 0},
      {at("source"), at("empty"), EISDIR},  {at("source"), at("full"), EISDIR},
      {at("source"), at("none/x"), ENOENT}, {at("source"), at("file/x"), ENOTDIR},
      {at("none"), at("other"), ENOENT},    {at("full"), at("empty"), EISDIR},
      {at("full"), at("file"), ENOTDIR},    {at("full"), at("full/below"), EINVAL},
      {at("full"), at("moved"), 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.from + " -> " + row.to);
    root.write("source", "new");
    EXPECT_EQ(codeOf(files.moveItem(row.from, row.to)), row.code);
    EXPECT_EQ(files.fileExistsAtPath(at("source")), row.code != 0 || row.from != at("source"));
  }
  EXPECT_EQ(readFile(at("file")), "new");
  EXPECT_EQ(names(at("moved")), "x ");
}

TEST_F(FileManagerTest, RemovalStaysBelowItsPath) {
  root.write("outside/kept", "x");
  root.write("d/a/b/c", "x");
  root.write("d/.hidden", "x");
  fs::create_symlink(at("outside"), at("d/a/link"));
  fs::create_symlink(at("outside"), at("link"));
  EXPECT_EQ(codeOf(files.removeItem(at("d/"))), 0);
  EXPECT_EQ(codeOf(files.removeItem(at("link/"))), 0) << "the link, not what it names";
  EXPECT_EQ(codeOf(files.removeItem(at("link"))), ENOENT);
  EXPECT_EQ(codeOf(files.removeItem("")), ENOENT);
  EXPECT_EQ(names(root.path()), "outside/ ");
  EXPECT_EQ(names(at("outside")), "kept ");
}

// Resource paths come from manifests: a tree may be deeper than a process may open files.
TEST_F(FileManagerTest, DeepTreesAreSizedAndRemoved) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit few{200, before.rlim_max};
  std::string deep = at("d");
  for (int i = 0; i < 1900; ++i)
    deep += "/n";
  ASSERT_EQ(codeOf(files.createDirectoryWithIntermediates(deep)), 0);
  ASSERT_EQ(codeOf(write(deep + "/file", "12345")), 0);
  root.write("d/.qn-removed-0", "a name in the way");

  setrlimit(RLIMIT_NOFILE, &few);
  EXPECT_EQ(files.folderSize(at("d")), 22);
  EXPECT_EQ(codeOf(files.removeItem(at("d"))), 0);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(names(root.path()), "");
}

TEST_F(FileManagerTest, ReadsAtMostWhatIsAskedFor) {
  root.write("file", "0123456789");
  root.write("empty", "");
  root.write("large", std::string(3 << 20, 'x'));
  mkfifo(at("pipe").c_str(), 0600);
  const struct {
    const char* name;
    int64_t maximum;
    size_t size;
    int code;
  } rows[] = {
      {"file", -1, 10, 0},        {"file", 4, 4, 0},       {"file", 0, 0, 0},
      {"file", 1024, 10, 0},      {"empty", -1, 0, 0},     {"large", -1, 3 << 20, 0},
      {"none", -1, 0, ENOENT},    {"pipe", -1, 0, EINVAL}, {".", -1, 0, EISDIR},
      {"file/x", -1, 0, ENOTDIR},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ErrorPtr error;
    const auto data = files.contentsAtPath(at(row.name), row.maximum, &error);
    EXPECT_EQ(codeOf(error), row.code);
    ASSERT_EQ(data != nullptr, row.code == 0);
    if (data) {
      EXPECT_EQ(data->size(), row.size);
    }
  }
  // The size that the kernel tells for these is 0.
  EXPECT_GT(files.contentsAtPath("/proc/self/status", -1)->size(), 0U);
}

TEST_F(FileManagerTest, AtomicWritesReplaceOrLeaveNothingBehind) {
  fs::create_directories(at("d/dir"));
  const std::string longest(255, 'n');
  root.write("elsewhere", "kept");
  fs::create_symlink(at("elsewhere"), at("d/link"));
  const struct {
    std::string path;
    int code;
  } rows[] = {
      {at("d/file"), 0},
      {at("d/file"), 0},
      {at("d/" + longest), 0},
      {at("d/link"), 0},
      {at("d/dir"), EISDIR},
      {at("none/file"), ENOENT},
      {at("elsewhere/file"), ENOTDIR},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(codeOf(write(row.path, "content")), row.code);
    if (row.code == 0) {
      EXPECT_EQ(readFile(row.path), "content");
    }
  }
  EXPECT_EQ(readFile(at("elsewhere")), "kept") << "a link is replaced, not followed";
  EXPECT_EQ(names(at("d")), "dir/ file link " + longest + " ");

  EXPECT_EQ(codeOf(files.writeAtomically(at("secret"), nullptr, 0, 0600)), 0);
  EXPECT_EQ(modeOf(at("secret")), 0600U);
}

TEST_F(FileManagerTest, AFullDiskLeavesOldContentAndNoTemporaryFile) {
  constexpr int64_t kDisk = 64 << 10;
  const auto ran = qntest::runInUserNamespace([&] {
    fs::create_directory(at("disk"));
    qntest::mountTmpfs(at("disk"), kDisk);
    root.write("disk/target", "old");
    root.write("source", std::string(kDisk * 2, 'x'));
    EXPECT_EQ(codeOf(write(at("disk/target"), std::string(kDisk * 2, 'x'))), ENOSPC);
    EXPECT_EQ(codeOf(files.moveItem(at("source"), at("disk/target"))), ENOSPC);
    EXPECT_EQ(readFile(at("disk/target")), "old");
    EXPECT_EQ(names(at("disk")), "target ");
    EXPECT_EQ(files.sizeOfFile(at("source")), kDisk * 2);
    EXPECT_EQ(codeOf(write(at("disk/target"), "room again")), 0);
  });
  if (!ran) GTEST_SKIP() << "no user namespaces here";
  EXPECT_TRUE(*ran);
}

TEST_F(FileManagerTest, MovesAcrossFileSystems) {
  const auto ran = qntest::runInUserNamespace([&] {
    fs::create_directory(at("disk"));
    qntest::mountTmpfs(at("disk"), 8 << 20);
    fs::create_directories(at("disk/dir"));
    const std::string content(3'000'001, 'c');
    root.write("source", content);
    chmod(at("source").c_str(), 0640);
    root.write("disk/old", "old");
    EXPECT_EQ(codeOf(files.moveItem(at("source"), at("disk/old"))), 0);
    EXPECT_TRUE(readFile(at("disk/old")) == content);
    EXPECT_EQ(modeOf(at("disk/old")), 0640U);
    EXPECT_FALSE(files.fileExistsAtPath(at("source")));

    root.write("source", "x");
    fs::create_symlink("source", at("link"));
    EXPECT_EQ(codeOf(files.moveItem(at("source"), at("disk/dir"))), EISDIR);
    EXPECT_EQ(codeOf(files.moveItem(at("source"), at("disk/none/x"))), ENOENT);
    EXPECT_EQ(codeOf(files.moveItem(at("link"), at("disk/x"))), EXDEV);
    EXPECT_EQ(codeOf(files.moveItem(at("disk/dir"), at("dir"))), EXDEV);
    EXPECT_EQ(readFile(at("source")), "x");
    EXPECT_EQ(names(at("disk")), "dir/ old ");
  });
  if (!ran) GTEST_SKIP() << "no user namespaces here";
  EXPECT_TRUE(*ran);
}

TEST_F(FileManagerTest, ErrorsNameTheEntryThatResisted) {
  const auto ran = qntest::runInUserNamespace([&] {
    root.write("d/a/busy/x", "");
    qntest::mountTmpfs(at("d/a/busy"), 4096);  // a mount point cannot be removed
    const auto error = files.removeItem(at("d"));
    EXPECT_EQ(codeOf(error), EBUSY);
    EXPECT_EQ(error->stringForKey(NSFilePathErrorKey), at("d/a/busy"));
    EXPECT_EQ(error->localizedDescription(),
              "Cannot remove " + at("d/a/busy") + ": Device or resource busy");
  });
  if (!ran) GTEST_SKIP() << "no user namespaces here";
  EXPECT_TRUE(*ran);
}

TEST(FileManagerPaths, JoinTextually) {
  const struct {
    const char* left;
    const char* right;
    const char* joined;
  } rows[] = {
      {"/a", "b", "/a/b"},
      {"/a/", "b", "/a/b"},
      {"/a//", "//b/", "/a/b/"},
      {"/a", "/etc/x", "/a/etc/x"},
      {"/", "b", "/b"},
      {"", "b", "b"},
      {"/a", "", "/a"},
      {"/a/", "/", "/a/"},
      {"a/..", "../b", "a/../../b"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(FileManager::pathByAppending(row.left, row.right), row.joined)
        << row.left << " + " << row.right;
  }
}

TEST(FileManagerPaths, TemporaryNamesAreKnown) {
  EXPECT_TRUE(FileManager::isTemporaryName(".qn-12-ab-1.tmp"));
  for (const char* name : {"manifest.mpd", ".hidden", ".qn-x", "x.tmp", ""}) {
    EXPECT_FALSE(FileManager::isTemporaryName(name)) << name;
  }
}

TEST(FileManagerPaths, FindTheDocumentsOfTheUser) {
  const qntest::TempDirectory home;
  const std::string h = home.path();
  const struct {
    std::optional<std::string> environment;
    const char* userDirs;  // null: no such file
    std::string expected;
  } rows[] = {
      {"/env/docs", "XDG_DOCUMENTS_DIR=\"/file\"\n", "/env/docs"},
      {"relative", nullptr, h + "/Documents"},
      {"", nullptr, h + "/Documents"},
      {std::nullopt, nullptr, h + "/Documents"},
      {std::nullopt, "# XDG_DOCUMENTS_DIR=\"/no\"\nXDG_MUSIC_DIR=\"/m\"\n", h + "/Documents"},
      {std::nullopt, "XDG_DOCUMENTS_DIR=\"$HOME/Dokumente\"\n", h + "/Dokumente"},
      {std::nullopt, "  XDG_DOCUMENTS_DIR=\"/abs/a\\\"b\\\\c\"", "/abs/a\"b\\c"},
      {std::nullopt, "XDG_DOCUMENTS_DIR=\"$HOME\"\n", h},
      {std::nullopt, "XDG_DOCUMENTS_DIR=\"/one\"\nXDG_DOCUMENTS_DIR=\"/two\"\n", "/two"},
      // not as the file's own rules have it
      {std::nullopt, "XDG_DOCUMENTS_DIR=\"docs\"\n", h + "/Documents"},
      {std::nullopt, "XDG_DOCUMENTS_DIR=\"$HOMEX/d\"\n", h + "/Documents"},
      {std::nullopt, "XDG_DOCUMENTS_DIR=/bare\n", h + "/Documents"},
      {std::nullopt, "XDG_DOCUMENTS_DIR=\"/open\n", h + "/Documents"},
      {std::nullopt, "XDG_DOCUMENTS_DIR=\"/open\\", h + "/Documents"},
  };
  const qntest::ScopedEnvironment homeVariable("HOME", h);
  for (const bool ownConfig : {false, true}) {
    const std::string config = ownConfig ? h + "/conf" : h + "/.config";
    const qntest::ScopedEnvironment configVariable(
        "XDG_CONFIG_HOME", ownConfig ? std::optional(config) : std::nullopt);
    for (const auto& row : rows) {
      SCOPED_TRACE(row.userDirs ? row.userDirs : "no file");
      const qntest::ScopedEnvironment variable("XDG_DOCUMENTS_DIR", row.environment);
      fs::remove_all(config);
      if (row.userDirs) home.write(config.substr(h.size() + 1) + "/user-dirs.dirs", row.userDirs);
      EXPECT_EQ(FileManager::documentsDirectory(), row.expected);
    }
  }
}

TEST(FileManagerDefault, TestsPutTheirOwnInPlace) {
  class Missing : public FileManager {
   public:
    bool fileExistsAtPath(const std::string&) override { return false; }
  } missing;
  FileManager::setDefaultManager(&missing);
  EXPECT_FALSE(FileManager::defaultManager().fileExistsAtPath("/"));
  FileManager::setDefaultManager(nullptr);
  EXPECT_TRUE(FileManager::defaultManager().fileExistsAtPath("/"));
}

}  // namespace
}  // namespace platform
