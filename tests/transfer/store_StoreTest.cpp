#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/BootIdentifier.h"
#include "platform/Exception.h"
#include "platform/FileLock.h"
#include "platform/FileManager.h"
#include "platform/transfer/StoreLock.h"
#include "platform/transfer/TransferLedger.h"
#include "platform/transfer/TransferStore.h"
#include "platform/transfer/TransferStoreSchema.h"
#include "platform/transfer/service/SessionRegistry.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/UserNamespace.h"
#include "tests/transfer/FaultyDatabase.h"

namespace {

using namespace platform;

URLRequestPtr requestTo(const std::string& url) {
  auto request = std::make_shared<URLRequest>(URL::URLWithString(url));
  request->setHTTPMethod("POST");
  request->setValueForHTTPHeaderField("bytes=5-9", "Range");
  request->setValueForHTTPHeaderField("", "X-Empty");
  return request;
}

// Every field has a value of its own, so that no two columns can be mixed up unseen.
TransferRecord fullRecord(TransferTaskId id) {
  TransferRecord record;
  record.id = id;
  record.request = requestTo("http://a/one?two");
  record.description = std::string("with\0NUL", 8);
  record.running = true;
  record.stage = TransferStage::Failed;
  HTTPHeaders headers;
  headers.set("ETag", "\"t\"");
  headers.set("X-Empty", "");
  record.content = {{7, 3}, 101, 102, nullptr, "\"t\"", 103, false};
  record.content.response =
      std::make_shared<const HTTPURLResponse>(URL::URLWithString("http://b/"), 206, headers, 104);
  record.effort = {105, 106, 107, 108, URLSessionTaskWait::Retry};
  Dictionary info;
  info[NSLocalizedDescriptionKey] = std::string("why");
  info[NSURLErrorFailingURLStringErrorKey] = std::string("http://c/");
  info[NSFilePathErrorKey] = std::string("/d");
  info[QNURLErrorHTTPStatusKey] = int64_t{503};
  record.error = Error::errorWithDomain(NSURLErrorDomain, -1005, info);
  record.resumeToken = "token";
  record.bootId = "boot";
  return record;
}

std::string describe(const TransferRecord& r) {
  std::string text = std::to_string(r.id) + " " + r.request.get()->HTTPMethod() + " " +
                     (r.request.get()->url() ? r.request.get()->url()->absoluteString() : "-");
  const auto addHeaders = [&text](const HTTPHeaders& headers) {
    for (const auto& [name, value] : headers.fields())
      text += " " + name + "=" + value;
  };
  const auto add = [&text](int64_t value) { text += " " + std::to_string(value); };
  addHeaders(r.request.get()->allHTTPHeaderFields());
  text += " [" + r.description.value_or("none") + "]";
  add(r.running);
  add(static_cast<int>(r.stage));
  const auto& c = r.content;
  for (const int64_t value : {int64_t(c.file.owner), int64_t(c.file.generation), c.received,
                              c.synced, c.expected, int64_t(c.reportDue)})
    add(value);
  text += " " + c.validator;
  if (c.response) {
    text += " " + c.response->url()->absoluteString();
    add(c.response->statusCode());
    add(c.response->expectedContentLength());
    addHeaders(c.response->allHeaderFields());
  }
  for (const int64_t value : {int64_t(r.effort.attempts), r.effort.furthest, r.effort.stalledMs,
                              r.effort.retryAtBootMs, int64_t(r.effort.wait)})
    add(value);
  if (r.error) {
    text += " " + r.error->domain() + " " + r.error->localizedDescription() + " " +
            r.error->stringForKey(NSURLErrorFailingURLStringErrorKey).value_or("-") + " " +
            r.error->stringForKey(NSFilePathErrorKey).value_or("-");
    add(r.error->code());
    const auto status = r.error->userInfo().find(QNURLErrorHTTPStatusKey);
    if (status != r.error->userInfo().end()) add(std::any_cast<int64_t>(status->second));
  }
  return text + " " + r.resumeToken + " " + r.bootId;
}

class StoreTest : public testing::Test {
 protected:
  std::unique_ptr<TransferStore> open() {
    return std::make_unique<TransferStore>(directory_.path("store"), directory_.path("partial"),
                                           "id", 0);
  }
  std::unique_ptr<TransferLedger> openLedger() {
    return std::make_unique<TransferLedger>(open(), false);
  }
  // Between two openings.
  void run(const std::string& sql) {
    sqlite3* database = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(directory_.path("store/session.db").c_str(), &database));
    char* message = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &message))
        << sql << message;
    sqlite3_close(database);
  }
  static std::string describeAll(TransferStore& store) {
    std::string text;
    for (const auto& record : store.load())
      text += describe(record) + "\n";
    return text;
  }
  static TransferCall call(TransferCall::Kind kind, TransferTaskId task) {
    TransferCall result;
    result.kind = kind;
    result.task = task;
    if (kind == TransferCall::Kind::Create) result.request = requestTo("http://a/");
    return result;
  }
  // A task that got `size` bytes of 1000.
  TransferContent receive(TransferLedger& ledger, TransferTaskId id, size_t size) {
    TransferContent content;
    content.file = {id, 1};
    content.received = static_cast<int64_t>(size);
    content.expected = 1000;
    content.validator = "\"v\"";
    content.response = std::make_shared<const HTTPURLResponse>(URL::URLWithString("http://a/"), 200,
                                                               HTTPHeaders(), 1000);
    std::ofstream(ledger.files().path(content.file)) << std::string(size, 'x');
    return content;
  }

  qntest::TempDirectory directory_;
};

using Kind = TransferCall::Kind;

TEST_F(StoreTest, GivesBackEveryFieldOfATask) {
  TransferRecord bare;
  bare.id = 2;
  bare.bootId = platform::currentBootIdentifier();  // what an empty one stands for
  bare.request = std::make_shared<const URLRequest>(nullptr);
  const TransferRecord full = fullRecord(1);
  TransferRecord changed = full;
  TransferRecord packed = bare;
  packed.bootId.clear();
  packed.request.pack();
  changed.request.pack();
  {
    const auto store = open();
    const TransferMark mark{~uint64_t{0}, 7};
    ASSERT_FALSE(store->apply(
        {{TransferChange::Kind::Insert, full}, {TransferChange::Kind::Insert, packed}}, &mark));
    EXPECT_EQ(mark, store->mark());
    EXPECT_EQ(describe(full) + "\n" + describe(bare) + "\n", describeAll(*store));
    changed.description.reset();
    changed.running = false;
    ASSERT_FALSE(store->apply({{TransferChange::Kind::UpdateOwn, changed}}));
  }
  const auto store = open();
  EXPECT_EQ(describe(changed) + "\n" + describe(bare) + "\n", describeAll(*store));
  EXPECT_EQ(7u, store->mark().number);
  ASSERT_FALSE(store->apply({{TransferChange::Kind::Delete, changed}}));
  EXPECT_EQ(describe(bare) + "\n", describeAll(*store));
}

TEST_F(StoreTest, RemembersTheSessionsSettings) {
  TransferOptions options;
  options.connectionsPerHost = 1;
  options.transfers = 2;
  options.bytesPerSecond = 3;
  options.connectTimeoutMs = 4;
  options.stallTimeoutMs = 5;
  options.retryBoundMs = 6;
  options.diskFullBoundMs = 7;
  options.caFile = "/ca";
  options.allowsCellularAccess = false;
  options.discretionary = true;
  options.sendsLaunchEvents = true;
  options.launchCommand = LaunchCommand{{"/bin/x", "a b"}, {{"HOME", "/h"}}, "/w"};
  ASSERT_TRUE(open()->saveSession(options));
  const auto store = open();
  EXPECT_TRUE(FileLock::ofDirectory(directory_.path("partial")).isHeld);
  const auto session = store->session();
  EXPECT_TRUE(options == session.options);
  EXPECT_EQ("id", session.identifier);
  EXPECT_EQ(directory_.path("partial"), session.partialDirectory);
  EXPECT_FALSE(session.application.empty());
}

TEST_F(StoreTest, BringsOlderStoresUpToDate) {
  for (int version = 1; version < kStoreSchemaVersion; ++version) {
    const qntest::TempDirectory directory;
    sqlite3* database = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(directory.path("session.db").c_str(), &database));
    std::string sql;
    for (int step = 0; step < version; ++step)
      sql += kStoreSchemaSteps[step];
    sql +=
        "INSERT INTO session(id, identifier) VALUES(1, 'id');"
        "PRAGMA application_id = " +
        std::to_string(kStoreApplicationId) +
        ";"
        "PRAGMA user_version = " +
        std::to_string(version);
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr));
    sqlite3_close(database);
    TransferStore store(directory.path(), directory.path("partial"), "id", 0);
    EXPECT_FALSE(store.stateWasLost());
    ASSERT_FALSE(store.apply({{TransferChange::Kind::Insert, fullRecord(1)}}));
    EXPECT_TRUE(store.saveSession({}));
  }
}

TEST_F(StoreTest, RefusesTheStoreOfAnotherIdentifier) {
  open();
  try {
    TransferStore other(directory_.path("store"), directory_.path("partial"), "other", 0);
    FAIL();
  } catch (const Exception& exception) {
    EXPECT_EQ("NSURLSessionException", exception.name());
    EXPECT_NE(std::string::npos, exception.reason().find("\"id\""));
  }
}

TEST_F(StoreTest, IsPrivate) {
  const auto store = open();
  ASSERT_FALSE(store->apply({{TransferChange::Kind::Insert, fullRecord(1)}}));
  for (const auto& [name, mode] : std::map<std::string, unsigned>{{"store", 0700},
                                                                  {"partial", 0700},
                                                                  {"store/session.db", 0600},
                                                                  {"store/session.db-wal", 0600},
                                                                  {"store/lock", 0600}}) {
    struct stat status {};
    ASSERT_EQ(0, ::stat(directory_.path(name).c_str(), &status)) << name;
    EXPECT_EQ(mode, status.st_mode & 0777u) << name;
  }
}

// Whoever may write where the directories are to lie could have been there first.
TEST_F(StoreTest, FollowsNothingThatSomebodyPutInTheirPlace) {
  const std::string victim = directory_.path("victim");
  ::mkdir(victim.c_str(), 0755);
  directory_.write("victim/5.1", "precious");
  directory_.write("note", "precious");
  for (const std::string name : {"store", "partial"}) {
    const std::string path = directory_.path(name);
    const std::function<void()> rows[] = {
        [&] { ::symlink(victim.c_str(), path.c_str()); },
        [&] { ::symlink("nowhere", path.c_str()); },
        [&] { ::link(directory_.path("note").c_str(), path.c_str()); },
        [&] {
          ::mkdir(path.c_str(), 0777);
          if (::chown(path.c_str(), qntest::AnotherUser::kNobody, 0) != 0) ::rmdir(path.c_str());
        },
    };
    for (const auto& put : rows) {
      SCOPED_TRACE(name + " " + std::to_string(&put - rows));
      put();
      struct stat status {};
      if (::lstat(path.c_str(), &status) != 0) continue;  // only root can give one away
      EXPECT_THROW(openLedger(), Exception);
      EXPECT_EQ("precious", qntest::readFile(victim + "/5.1").value_or("gone"));
      EXPECT_EQ(0, ::stat(victim.c_str(), &status));
      EXPECT_EQ(0755u, status.st_mode & 0777);
      std::filesystem::remove_all(path);
    }
  }
  // What is in an own one is removed by its name, and where it leads nothing happens.
  ::mkdir(directory_.path("partial").c_str(), 0700);
  ::chmod(directory_.path("partial").c_str(), 0777);
  for (const char* name : {"note", "5.1", "007.1", "8.1.tmp"})
    directory_.write(std::string("partial/") + name, "");
  ::symlink((victim + "/5.1").c_str(), directory_.path("partial/6.1").c_str());
  ::link((victim + "/5.1").c_str(), directory_.path("partial/7.2").c_str());
  openLedger();
  std::set<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(directory_.path("partial")))
    left.insert(entry.path().filename());
  EXPECT_EQ((std::set<std::string>{"note", "007.1", "8.1.tmp"}), left);
  const auto store = open();
  ::link((victim + "/5.1").c_str(), directory_.path("partial/7.2").c_str());
  FileDescriptor fd;
  EXPECT_EQ(0, store->files().create({7, 2}, fd));
  EXPECT_EQ("precious", qntest::readFile(victim + "/5.1").value_or("gone"));
}

TEST_F(StoreTest, AForkedChildDoesNotHoldIt) {
  auto store = open();
  int pair[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(pair[1]);
    char byte = 0;
    static_cast<void>(!::write(pair[0], &byte, 1));  // it runs
    static_cast<void>(!::read(pair[0], &byte, 1));   // until the parent is done
    ::_exit(0);
  }
  char byte = 0;
  EXPECT_EQ(1, ::read(pair[1], &byte, 1));
  store.reset();
  EXPECT_NO_THROW(open());
  ::close(pair[0]);
  ::close(pair[1]);
  ::waitpid(child, nullptr, 0);
}

TEST_F(StoreTest, NeverGivesATaskIdentifierTwice) {
  std::set<TransferTaskId> seen;
  for (int launch = 0; launch < 3; ++launch) {
    const auto ledger = openLedger();
    for (int i = 0; i < 1500; ++i) {
      EXPECT_TRUE(seen.insert(ledger->nextIdentifier()).second);
    }
    // Removed tasks do not free theirs.
    std::vector<TransferTaskId> touched;
    std::vector<TransferEvent> events;
    ledger->submit({call(Kind::Create, *seen.rbegin()), call(Kind::Cancel, *seen.rbegin()),
                    call(Kind::Acknowledge, *seen.rbegin())},
                   touched, events);
  }
}

TEST_F(StoreTest, TrustsOnlyFlushedBytesAfterAnotherBoot) {
  EXPECT_FALSE(platform::isSameBoot("", ""));  // also where the system tells none
  struct Row {
    const char* boot;
    int64_t synced;
    int64_t expected;
  };
  for (const Row& row : {Row{"same", 300, 500}, Row{"other", 300, 300}, Row{"other", 0, 0}}) {
    std::vector<TransferTaskId> touched;
    std::vector<TransferEvent> events;
    TransferTaskId id = 0;
    {
      const auto ledger = openLedger();
      id = ledger->nextIdentifier();
      ledger->submit({call(Kind::Create, id)}, touched, events);
      const auto content = receive(*ledger, id, 500);
      ASSERT_TRUE(ledger->setContent(id, content, {}));
      ledger->setSynced(id, content.file, row.synced);
    }
    if (row.boot == std::string("other")) run("UPDATE task SET boot_id = 'other'");
    const auto ledger = openLedger();
    const auto record = ledger->unfinishedTask(id);
    ASSERT_TRUE(record);
    EXPECT_EQ(row.expected, record->content.received) << row.boot << row.synced;
    EXPECT_EQ(row.expected, std::max<int64_t>(0, ledger->files().size({id, 1})));
    ledger->submit({call(Kind::Cancel, id), call(Kind::Acknowledge, id)}, touched, events);
  }
}

TEST_F(StoreTest, LooksAtTheFilesOfTheLastLaunch) {
  struct Row {
    const char* what;
    TransferStage stage;
    const char* sql;  // what happened meanwhile
    bool fileGone;
    const char* expected;
  };
  const Row rows[] = {
      {"part", TransferStage::None, "", false, "none 500"},
      {"part whose file is gone", TransferStage::None, "", true, "none 0"},
      {"part without validator", TransferStage::None, "UPDATE task SET validator = ''", false,
       "none 0"},
      {"part of an error page", TransferStage::None, "UPDATE task SET status = 404", false,
       "none 0"},
      {"longer than announced", TransferStage::None, "UPDATE task SET expected = 400", false,
       "none 0"},
      {"whole", TransferStage::Finished, "", false, "held finished 500"},
      {"whole and moved away", TransferStage::Finished, "", true, "gone"},
      {"whole, then the power went", TransferStage::Finished, "UPDATE task SET boot_id = 'x'",
       false, "none 0"},
  };
  for (const auto& row : rows) {
    const qntest::TempDirectory directory;
    const auto openHere = [&] {
      return std::make_unique<TransferLedger>(
          std::make_unique<TransferStore>(directory.path(), directory.path("partial"), "id", 0),
          false);
    };
    std::vector<TransferTaskId> touched;
    std::vector<TransferEvent> events;
    {
      const auto ledger = openHere();
      ledger->submit({call(Kind::Create, 1)}, touched, events);
      const auto content = receive(*ledger, 1, 500);
      if (row.stage == TransferStage::None) {
        ASSERT_TRUE(ledger->setContent(1, content, {}));
      } else {
        EXPECT_EQ(1u, ledger->end({{1, content, nullptr, false}}).size());
      }
      if (row.fileGone) ledger->files().remove(content.file);
    }
    sqlite3* database = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(directory.path("session.db").c_str(), &database));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(database, row.sql, nullptr, nullptr, nullptr));
    sqlite3_close(database);
    std::ofstream(directory.path("partial/99.1")) << "nobody's";

    const auto ledger = openHere();
    std::string found = "gone";
    if (const auto record = ledger->unfinishedTask(1)) {
      found = "none " + std::to_string(record->content.received);
    } else if (const auto held = ledger->heldEvents(); !held.empty()) {
      found = "held finished " + std::to_string(held[0].received);
      EXPECT_TRUE(held[0].held);
    }
    EXPECT_EQ(row.expected, found) << row.what;
    EXPECT_EQ(-1, ledger->files().size({99, 1})) << "orphans go";
  }
}

// Whichever operation fails, and for whatever reason.
TEST_F(StoreTest, ATransientErrorAtOpeningIsNoDamage) {
  std::vector<TransferTaskId> touched;
  std::vector<TransferEvent> events;
  {
    const auto ledger = openLedger();
    for (TransferTaskId id = 1; id <= 40; ++id)  // some pages
      ledger->submit({call(Kind::Create, id)}, touched, events);
    EXPECT_EQ(1u, ledger->end({{1, receive(*ledger, 1, 500), nullptr, false}}).size());
  }
  char failing = 0;
  int code = 0;
  int failAt = 0;
  const auto fault = [&](char operation) {
    return operation == failing && failAt > 0 && --failAt == 0 ? code : 0;
  };
  const qntest::FaultyDatabase faulty(fault);
  PartialFiles::setHook([&](const char* operation) { return fault(*operation); });
  for (const auto& [operation, result] :
       std::vector<std::pair<char, int>>{{'r', SQLITE_IOERR_READ},
                                         {'r', SQLITE_IOERR_NOMEM},
                                         {'w', SQLITE_IOERR_WRITE},
                                         {'s', EIO}}) {
    bool reached = true;
    for (int n = 1; reached; ++n) {
      std::tie(failing, code, failAt) = std::tuple(operation, result, n);
      try {
        openLedger();
      } catch (const Exception&) {
      }
      reached = std::exchange(failAt, 0) == 0;
      const auto ledger = openLedger();
      EXPECT_EQ(40u, ledger->tasks().size()) << result << " at " << n;
      EXPECT_EQ(500, ledger->files().size({1, 1})) << result << " at " << n;
    }
  }
  PartialFiles::setHook(nullptr);
}

TEST_F(StoreTest, ASessionThatCannotBeReadNowStaysKnown) {
  struct Unreadable : FileManager {
    DataPtr contentsAtPath(const std::string& path, int64_t, ErrorPtr* error) override {
      return *error = Error::errorWithErrno(EIO, "read", path), nullptr;
    }
  } unreadable;
  const service::SessionRegistry registry(directory_.path("services"));
  registry.save({"id", directory_.path(), directory_.path(), false, 0});
  FileManager::setDefaultManager(&unreadable);
  EXPECT_TRUE(registry.load().empty());
  FileManager::setDefaultManager(nullptr);
  EXPECT_EQ(1u, registry.load().size());
}

TEST_F(StoreTest, ATaskThatCannotBeStoredFailsAndTheOthersStay) {
  openLedger();
  run("CREATE TRIGGER full BEFORE INSERT ON task BEGIN SELECT RAISE(FAIL, 'no room'); END");
  std::vector<TransferTaskId> touched;
  std::vector<TransferEvent> events;
  {
    const auto ledger = openLedger();
    ledger->submit({call(Kind::Create, 1), call(Kind::Create, 2)}, touched, events);
    ledger->commit(events);
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(TransferEvent::Kind::Failed, events[0].kind);
    EXPECT_FALSE(ledger->unfinishedTask(1));
  }
  run("DROP TRIGGER full");
  const auto ledger = openLedger();
  EXPECT_TRUE(ledger->tasks().empty());
}

TEST_F(StoreTest, ResumeDataMovesTheFileToTheNewTask) {
  std::vector<TransferTaskId> touched;
  std::vector<TransferEvent> events;
  auto ledger = openLedger();
  ledger->submit({call(Kind::Create, 1), call(Kind::Create, 2)}, touched, events);
  const auto error = Error::errorWithDomain(NSURLErrorDomain, -1005);
  const auto ended = ledger->end(
      {{1, receive(*ledger, 1, 500), error, true}, {2, receive(*ledger, 2, 400), error, true}});
  ASSERT_EQ(2u, ended.size());
  auto create = call(Kind::Create, 3);
  create.source = 1;
  create.sourceToken = ended[0].resumeToken;
  auto forged = call(Kind::Create, 4);
  forged.source = 2;
  forged.sourceToken = "guess";
  ledger->submit({create, forged, call(Kind::Acknowledge, 1), call(Kind::Acknowledge, 2)}, touched,
                 events);
  EXPECT_EQ(500, ledger->unfinishedTask(3)->content.received);
  EXPECT_EQ(0, ledger->unfinishedTask(4)->content.received);
  EXPECT_EQ(500, ledger->files().size({1, 1}));
  EXPECT_EQ(-1, ledger->files().size({2, 1}));
  ledger.reset();
  ledger = openLedger();
  EXPECT_EQ(500, ledger->unfinishedTask(3)->content.received);
  EXPECT_EQ(2u, ledger->tasks().size());
}

}  // namespace
