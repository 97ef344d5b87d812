#include <fstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Exception.h"
#include "platform/transfer/service/FrameReader.h"
#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/ServiceSocket.h"
#include "tests/support/FaultServer.h"
#include "tests/support/Processes.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/TestContent.h"
#include "tests/support/UserNamespace.h"
#include "tests/transfer/engine_Recorder.h"

namespace {

using namespace platform;
using namespace platform::service;
using qntest::AnotherUser;
using qntest::Fault;
using qntest::FaultServer;
using qntest::Recorder;
using qntest::ScopedEnvironment;

bool eventually(const std::function<bool()>& condition, double seconds = 30) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// A service of the test's own, started by the library on demand, and clients of it.
class ServiceTest : public testing::Test {
 protected:
  ~ServiceTest() override {
    session_.reset();
    killService();
  }

  URLSessionConfiguration configuration(const std::string& identifier = "test") const {
    auto result = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
    result.stateDirectory = directory_.path("state");
    result.retryBoundSeconds = 20;
    result.useService = true;
    return result;
  }

  void open() { session_ = URLSession::sessionWithConfiguration(configuration(), recorder_); }

  std::shared_ptr<URLSessionDownloadTask> begin(const std::string& path) {
    auto task = session_->downloadTaskWithRequest(
        URLRequest::requestWithURL(URL::URLWithString(server_.url(path))));
    task->resume();
    return task;
  }

  URLSession::Tasks tasks() {
    URLSession::Tasks result;
    session_->getTasksWithCompletionHandler([&](const auto& all) { result = all; });
    return result;
  }

  // 0 when none runs. The process that the socket tells is the one that listened first and left.
  pid_t service() const {
    int error = 0;
    const FileDescriptor fd = connectTo(socketPath(), &error);
    const auto welcome =
        fd ? greet(fd.get(), Hello::Kind::Hello, kProtocolVersion, 30'000) : std::nullopt;
    return welcome ? static_cast<pid_t>(welcome->process) : 0;
  }

  void killService() const { qntest::killAndWait(service()); }

  std::string refusal() {
    try {
      open();
    } catch (const Exception& exception) {
      EXPECT_EQ("NSURLSessionException", exception.name());
      return exception.reason();
    }
    return "opened";
  }

  void expectWhole(const URLSessionDownloadTask& task, const std::string& path,
                   uint64_t size) const {
    EXPECT_EQ("", qntest::compareWithContent(recorder_->fileOf(task), path, 0, size));
  }

  qntest::TempDirectory directory_;
  ScopedEnvironment runtime_{"XDG_RUNTIME_DIR", directory_.path("run")};
  ScopedEnvironment state_{"QN_STATE_DIR", directory_.path("default-state")};
  ScopedEnvironment program_{"QN_TRANSFERD", QN_TEST_TRANSFERD};
  ScopedEnvironment recover_{"QN_TRANSFERD_RECOVER_MS", "200"};
  ScopedEnvironment launchDelay_{"QN_TRANSFERD_LAUNCH_DELAY_MS", "5"};
  FaultServer server_;
  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>(directory_.path());
  std::shared_ptr<URLSession> session_;
};

// Speaks to the service by hand.
class RawClient {
 public:
  RawClient() {
    int error = 0;
    fd_ = connectTo(socketPath(), &error);
    if (fd_) greet(fd_.get(), Hello::Kind::Hello, kProtocolVersion, 30'000);
  }

  void send(const Message& message) { sendBytes(encodeFrame(message)); }
  void sendBytes(const std::string& bytes) { sendAll(fd_.get(), bytes.data(), bytes.size()); }

  // The next message, nullopt at the end.
  std::optional<Message> receive() {
    for (;;) {
      if (auto body = frames_.next()) return decodeMessage(*body);
      if (!frames_.fill(fd_.get(), frames_.missing())) return std::nullopt;
    }
  }
  template <class T>
  T receive() {
    for (;;) {
      auto message = receive();
      if (!message) return {};
      if (auto* wanted = std::get_if<T>(&*message)) return std::move(*wanted);
    }
  }

  // A session with running tasks for these URLs.
  void begin(const URLSessionConfiguration& configuration, const std::vector<std::string>& urls) {
    send(OpenMessage{1, configuration, false});
    EXPECT_EQ("", receive<OpenedMessage>().refusal);
    send(ReserveMessage{2, static_cast<uint32_t>(urls.size())});
    TransferTaskId id = receive<ReservedMessage>().first;
    BatchMessage batch{3, {}};
    for (const std::string& url : urls) {
      TransferCall create;
      create.task = id++;
      create.request = URLRequest::requestWithURL(URL::URLWithString(url));
      TransferCall resume;
      resume.kind = TransferCall::Kind::Resume;
      resume.task = create.task;
      batch.calls.push_back(create);
      batch.calls.push_back(resume);
    }
    send(batch);
    EXPECT_EQ(3u, receive<DoneMessage>().number);
    send(StartMessage{4});
    receive<StartedMessage>();
  }

  void hangUp() { fd_.reset(); }

 private:
  FileDescriptor fd_;
  FrameReader frames_;
};

// The service may not have noticed yet that the client before hung up.
OpenedMessage openAfterHangUp(const URLSessionConfiguration& configuration, RawClient& client) {
  OpenedMessage opened;
  EXPECT_TRUE(eventually([&] {
    client = RawClient();
    client.send(OpenMessage{1, configuration, false});
    opened = client.receive<OpenedMessage>();
    return opened.refusal.empty();
  })) << opened.refusal;
  return opened;
}

TransferEvent someEvent() {
  TransferEvent event;
  event.kind = TransferEvent::Kind::Failed;
  event.task = 7;
  event.received = 5;
  event.responseNumber = 3;
  HTTPHeaders headers;
  headers.set("ETag", "\"x\"");
  event.response =
      std::make_shared<const HTTPURLResponse>(URL::URLWithString("http://h/p"), 206, headers, 9);
  event.wait = {URLSessionTaskWait::Retry, 1.5, "later"};
  event.path = "/p";
  event.error = Error::errorWithDomain(
      NSURLErrorDomain, -1005,
      {{NSLocalizedDescriptionKey, std::string("lost")},
       {QNURLErrorHTTPStatusKey, int64_t{503}},
       {NSURLSessionDownloadTaskResumeData, DataPtr(std::make_shared<const Data>(Data{1, 2}))}});
  event.resumeToken = "token";
  return event;
}

std::vector<std::string> someFrames() {
  URLSessionConfiguration configuration;
  configuration.identifier = "an identifier";
  configuration.partialDirectory = "/d";
  configuration.retryBoundSeconds = 2.5;
  configuration.launchCommand = LaunchCommand{{"/bin/app", "x"}, {{"A", "b"}}, "/tmp"};
  TransferCall create;
  create.task = 4;
  auto request = URLRequest::requestWithURL(URL::URLWithString("http://h/a%20b"));
  request->setValueForHTTPHeaderField("v", "X-Key");
  create.request = request;
  create.source = 3;
  create.sourceToken = "t";
  create.description = "d";
  TransferCall describe;
  describe.kind = TransferCall::Kind::SetDescription;
  describe.task = 4;
  TransferEvent plain;
  plain.task = 1;
  TransferTaskInfo task;
  task.id = 9;
  task.request = request;
  task.stage = TransferStage::Finished;
  return {encodeFrame(OpenMessage{1, configuration, true}),
          encodeFrame(BatchMessage{2, {create, describe}}),
          encodeFrame(ReserveMessage{3, 17}),
          encodeFrame(OpenedMessage{4, "no", true, true, {task}}),
          encodeFrame(StartedMessage{5, 6}),
          encodeFrame(EventsMessage{{someEvent(), plain}})};
}

TEST(ServiceMessages, ReadBackToTheSameBytesAndRefuseEverythingCut) {
  for (const std::string& frame : someFrames()) {
    const std::string_view body = std::string_view(frame).substr(4);
    const auto message = decodeMessage(body);
    ASSERT_TRUE(message) << static_cast<int>(body[0]);
    EXPECT_EQ(frame, encodeFrame(*message));
    for (size_t size = 0; size < body.size(); ++size)
      EXPECT_FALSE(decodeMessage(body.substr(0, size)))
          << static_cast<int>(body[0]) << " cut at " << size;
    EXPECT_FALSE(decodeMessage(std::string(body) + "x"));
  }
}

TEST(ServiceMessages, BytesOfAnyKindAreReadOrRefused) {
  size_t refused = 0;
  for (const std::string& frame : someFrames()) {
    for (size_t i = 4; i < frame.size(); ++i) {
      for (const char other : {'\x00', '\x01', '\x7f', '\xff'}) {
        std::string changed = frame;
        changed[i] = other;
        const auto message = decodeMessage(std::string_view(changed).substr(4));
        // What is accepted is written as it was read.
        if (message) {
          const std::string again = encodeFrame(*message);
          EXPECT_EQ(again, encodeFrame(*decodeMessage(std::string_view(again).substr(4))));
        }
        refused += !message;
      }
    }
  }
  EXPECT_GT(refused, 100u);
}

TEST_F(ServiceTest, TransfersGoOnWithoutTheApplicationAndTheEndWaitsForIt) {
  server_.serve("/a", 400'000);
  server_.script("/a", {Fault::hold(200'000)});
  open();
  tasks();
  const auto id = begin("/a")->taskIdentifier();
  ASSERT_TRUE(server_.waitForSent("/a", 200'000));
  session_.reset();
  server_.release("/a");
  ASSERT_TRUE(server_.waitForSent("/a", 400'000));
  open();
  const auto again = tasks();
  ASSERT_EQ(1u, again.size());
  EXPECT_EQ(id, again[0]->taskIdentifier());
  ASSERT_TRUE(recorder_->waitFor(again[0], "done"));
  expectWhole(*again[0], "/a", 400'000);
  EXPECT_EQ(1u, server_.requestCount("/a"));
}

TEST_F(ServiceTest, AServiceThatIsKilledIsStartedAgainAndNothingIsToldTwice) {
  server_.serve("/a", 400'000);
  server_.serve("/b", 1'000);
  server_.script("/a", {Fault::hold(200'000)});
  open();
  tasks();
  const auto slow = begin("/a");
  const auto quick = begin("/b");
  ASSERT_TRUE(recorder_->waitFor(quick, "done"));
  ASSERT_TRUE(recorder_->waitUntil([&] { return slow->countOfBytesReceived() == 200'000; }));
  for (int i = 0; i < 3; ++i) {
    const pid_t before = service();
    server_.script("/a", {Fault::hold(10'000)});
    killService();
    ASSERT_TRUE(eventually([&] { return service() != 0; }));
    EXPECT_NE(before, service());
    ASSERT_TRUE(server_.waitForRequests("/a", static_cast<size_t>(i) + 2));
  }
  server_.script("/a", {});
  server_.release("/a");
  const auto late = begin("/b");
  ASSERT_TRUE(recorder_->waitFor(slow, "done"));
  ASSERT_TRUE(recorder_->waitFor(late, "done"));
  expectWhole(*slow, "/a", 400'000);
  for (const auto& task : {slow, quick, late})
    EXPECT_EQ(1u, recorder_->count(std::to_string(task->taskIdentifier()) + " done"));
}

TEST_F(ServiceTest, OneApplicationAtATimeHoldsASession) {
  open();
  const auto first = std::exchange(session_, nullptr);
  const std::string reason = refusal();
  EXPECT_NE(std::string::npos, reason.find("test is held by process " + std::to_string(::getpid())))
      << reason;
}

TEST_F(ServiceTest, ASocketDirectoryThatIsNotOursAloneIsNotTrusted) {
  const std::string directory = directory_.path("run/QNMovieDownloader");
  ::mkdir(directory_.path("run").c_str(), 0700);
  const auto expectRefused = [&](const std::string& why) {
    EXPECT_NE(std::string::npos, refusal().find(why)) << why;
    EXPECT_EQ(0, service());
  };
  ::symlink(directory_.path().c_str(), directory.c_str());
  expectRefused("is no directory");
  ::unlink(directory.c_str());
  ::mkdir(directory.c_str(), 0700);
  for (const mode_t mode : {0755, 0710, 0701}) {
    ::chmod(directory.c_str(), mode);
    expectRefused("is open to other users");
  }
  ::chmod(directory.c_str(), 0700);
  if (AnotherUser::isAllowed()) {
    ASSERT_EQ(0, ::chown(directory.c_str(), AnotherUser::kNobody, 0));
    expectRefused("belongs to another user");
    ASSERT_EQ(0, ::chown(directory.c_str(), 0, 0));
  }
  EXPECT_EQ("opened", refusal());
}

TEST_F(ServiceTest, AnotherUserIsNotServedAndDoesNotServe) {
  server_.serve("/a", 1'000);
  open();
  tasks();
  const std::string socket = socketPath();
  const std::string directory = socket.substr(0, socket.rfind('/'));
  struct stat status = {};
  ASSERT_EQ(0, ::stat(directory.c_str(), &status));
  EXPECT_EQ(0700u, status.st_mode & 0777);
  ASSERT_EQ(0, ::stat(socket.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  if (!AnotherUser::isAllowed()) return;  // the modes are what can be seen

  int error = 0;
  const auto connectAsAnother = [&] {
    const AnotherUser nobody;
    return connectTo(socket, &error);
  };
  EXPECT_FALSE(connectAsAnother());
  EXPECT_EQ(EACCES, error);
  // Were the modes wrong, the service would look at who comes.
  for (const std::string& path : {directory_.path(), directory_.path("run"), directory})
    ::chmod(path.c_str(), 0777);
  ::chmod(socket.c_str(), 0666);
  const FileDescriptor stranger = connectAsAnother();
  ASSERT_TRUE(stranger);
  char end = 0;
  EXPECT_LE(::recv(stranger.get(), &end, 1, 0), 0) << "it was not turned away";
  EXPECT_TRUE(recorder_->waitFor(begin("/a"), "done"));

  session_.reset();
  killService();
  ::unlink(socket.c_str());
  ::unlink((socket + ".lock").c_str());
  FileDescriptor listener;
  {
    const AnotherUser nobody;
    listener = listenAt(socket, &error);
  }
  ASSERT_TRUE(listener) << error;
  ::chmod(directory.c_str(), 0700);
  EXPECT_NE(std::string::npos, refusal().find("is served by another user"));
}

// A service, as far as its hello goes. Leaves when it is asked to, or after so many hellos.
class OtherVersion {
 public:
  explicit OtherVersion(uint32_t version, int hellos = 1'000) : version_(version), hellos_(hellos) {
    EXPECT_EQ("", prepareSocketDirectory(socketPath()));
    int error = 0;
    listener_ = listenAt(socketPath(), &error);
    thread_ = std::thread([this] { serve(); });
  }
  ~OtherVersion() {
    stop_ = true;
    thread_.join();
  }
  bool wasAskedToLeave() const { return left_; }

 private:
  void serve() {
    while (!stop_ && listener_) {
      const FileDescriptor client(::accept(listener_.get(), nullptr, nullptr));
      std::string bytes(Hello::kSize, '\0');
      if (!client || !receiveAll(client.get(), bytes.data(), bytes.size(), 10'000)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        continue;
      }
      left_ = Hello::decode(bytes)->kind == Hello::Kind::Quit;
      if (left_ || --hellos_ == 0) listener_.reset();
      const auto kind = left_ ? Hello::Kind::Leaving : Hello::Kind::Welcome;
      const std::string answer = Hello{kind, version_, 1}.encode();
      sendAll(client.get(), answer.data(), answer.size());
    }
  }

  const uint32_t version_;
  int hellos_;
  FileDescriptor listener_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> left_{false};
  std::thread thread_;
};

// A service that answers and stores nothing; over each second reservation it dies.
class ForgetfulService {
 public:
  ForgetfulService() {
    EXPECT_EQ("", prepareSocketDirectory(socketPath()));
    int error = 0;
    listener_ = listenAt(socketPath(), &error);
    ::fcntl(listener_.get(), F_SETFL, 0);
    thread_ = std::thread([this] {
      while (FileDescriptor client{::accept(listener_.get(), nullptr, nullptr)})
        serve(client.get());
    });
  }
  ~ForgetfulService() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }

  std::atomic<int> lives{0};
  std::atomic<size_t> created{0};  // by the batches that this life was told of

 private:
  void serve(int fd) {
    std::string bytes(Hello::kSize, '\0');
    if (!receiveAll(fd, bytes.data(), bytes.size(), 10'000)) return;
    const std::string welcome = Hello{Hello::Kind::Welcome, kProtocolVersion, 1}.encode();
    sendAll(fd, welcome.data(), welcome.size());
    ++lives;
    created = 0;
    FrameReader frames;
    for (int reservations = 0; reservations < 2;) {
      const auto body = frames.next();
      if (!body && !frames.fill(fd, frames.missing())) return;
      const auto message = body ? decodeMessage(*body) : std::nullopt;
      if (!message) continue;
      Message answer = OpenedMessage{};
      if (const auto* batch = std::get_if<BatchMessage>(&*message))
        created += batch->calls.front().kind == TransferCall::Kind::Create;
      if (const auto* bye = std::get_if<GoodbyeMessage>(&*message))
        answer = DoneMessage{bye->number};
      if (const auto* start = std::get_if<StartMessage>(&*message))
        answer = StartedMessage{start->number, 0};
      if (const auto* reserve = std::get_if<ReserveMessage>(&*message)) {
        answer = ReservedMessage{reserve->number, next_ += reserve->count};
        ++reservations;
      }
      const std::string frame = encodeFrame(answer);
      if (!std::holds_alternative<BatchMessage>(*message)) sendAll(fd, frame.data(), frame.size());
    }
  }

  FileDescriptor listener_;
  TransferTaskId next_ = 1;
  std::thread thread_;
};

TEST_F(ServiceTest, OnlyTheDurableAnswerSettlesABatch) {
  ForgetfulService dying;
  open();
  tasks();
  size_t made = 0;
  while (dying.lives < 2 && made < 400) {
    session_->downloadTaskWithRequest(
        URLRequest::requestWithURL(URL::URLWithString(server_.url("/a"))));
    ++made;
  }
  EXPECT_TRUE(eventually([&] { return dying.created >= made; }, 5))
      << dying.created << " of " << made << " tasks were told again";
  session_.reset();
}

TEST_F(ServiceTest, AnOlderServiceIsMadeToLeaveAndANewerOneIsRefused) {
  {
    const OtherVersion newer(kProtocolVersion + 1);
    EXPECT_NE(std::string::npos, refusal().find("newer version"));
    EXPECT_FALSE(newer.wasAskedToLeave());
  }
  const OtherVersion older(kProtocolVersion - 1);
  EXPECT_EQ("opened", refusal());
  EXPECT_TRUE(older.wasAskedToLeave());
}

TEST_F(ServiceTest, OneThatDiesBeforeItHasOpenedTheSessionIsReplaced) {
  const OtherVersion dying(kProtocolVersion, 1);
  EXPECT_EQ("opened", refusal());
}

TEST_F(ServiceTest, TheRealServiceCommitsAndLeavesForANewerLibrary) {
  server_.serve("/a", 400'000);
  server_.script("/a", {Fault::hold(200'000), Fault::hold(10)});
  open();
  tasks();
  const auto task = begin("/a");
  ASSERT_TRUE(server_.waitForSent("/a", 200'000));
  int error = 0;
  const FileDescriptor fd = connectTo(socketPath(), &error);
  const pid_t before = service();
  const auto answer = greet(fd.get(), Hello::Kind::Quit, kProtocolVersion + 1, 30'000);
  ASSERT_TRUE(answer && answer->kind == Hello::Kind::Leaving);
  char end = 0;
  EXPECT_FALSE(receiveAll(fd.get(), &end, 1, 30'000));
  ASSERT_TRUE(eventually([&] { return service() != 0 && service() != before; }));
  server_.release("/a");
  EXPECT_TRUE(recorder_->waitFor(task, "done"));
  EXPECT_EQ(0u, server_.bytesSentAgain("/a"));
}

TEST_F(ServiceTest, ACommandThatDiesIsStartedFiveTimesUntilSomebodyComesByHand) {
  server_.serve("/a", 1'000);
  open();
  session_.reset();
  auto withCommand = configuration("launched");
  const std::string log = directory_.path("launches");
  withCommand.launchCommand =
      LaunchCommand{{"/bin/sh", "-c", "echo $QN_SESSION_IDENTIFIER $MORE >> " + log},
                    {{"MORE", "more"}},
                    directory_.path()};
  const auto launches = [&] {
    std::ifstream in(log);
    size_t count = 0;
    for (std::string line; std::getline(in, line); ++count)
      EXPECT_EQ("launched more", line);
    return count;
  };
  RawClient application;
  application.begin(withCommand, {server_.url("/a")});
  ASSERT_TRUE(server_.waitForSent("/a", 1'000));
  application.hangUp();
  ASSERT_TRUE(eventually([&] { return launches() == 5; }));
  // The count is on disk: a service that was killed meanwhile does not begin again.
  killService();
  open();
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  EXPECT_EQ(5u, launches());
  // By hand: the end is still there, and nothing was fetched again.
  RawClient hand;
  EXPECT_EQ(1u, openAfterHangUp(withCommand, hand).tasks.size());
  hand.send(StartMessage{2});
  const auto events = hand.receive<EventsMessage>().events;
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(TransferEvent::Kind::Finished, events.back().kind);
  EXPECT_EQ(1u, server_.requestCount("/a"));
  hand.hangUp();
  EXPECT_TRUE(eventually([&] { return launches() > 5; }));
}

TEST_F(ServiceTest, NobodyIsStartedAfterAGoodbye) {
  server_.serve("/a", 1'000);
  open();
  session_.reset();
  auto withCommand = configuration("launched");
  const std::string log = directory_.path("launches");
  withCommand.launchCommand = LaunchCommand{{"/bin/sh", "-c", "echo x >> " + log}, {}, {}};
  RawClient application;
  application.begin(withCommand, {server_.url("/a")});
  ASSERT_TRUE(server_.waitForSent("/a", 1'000));
  const pid_t process = service();
  TransferCall describe;
  describe.kind = TransferCall::Kind::SetDescription;
  describe.task = application.receive<EventsMessage>().events.at(0).task;
  describe.description = "said last";
  application.send(BatchMessage{5, {describe}});
  application.send(GoodbyeMessage{6});
  while (application.receive<DoneMessage>().number == 5)
    continue;
  qntest::killAndWait(process);
  open();
  session_.reset();
  RawClient next;
  EXPECT_EQ("said last", openAfterHangUp(withCommand, next).tasks.at(0).description.value_or(""));
  next.send(GoodbyeMessage{2});
  EXPECT_TRUE(next.receive());
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(qntest::readFile(log));
}

TEST_F(ServiceTest, AFileThatWasMovedAwayCountsAsDeliveredThoughTheApplicationDiedOverIt) {
  for (const char* path : {"/a", "/b"})
    server_.serve(path, 1'000);
  open();
  RawClient application;
  application.begin(configuration("dies"), {server_.url("/a"), server_.url("/b")});
  std::vector<TransferEvent> ends;
  while (ends.size() < 2) {
    for (auto& event : application.receive<EventsMessage>().events)
      if (event.kind == TransferEvent::Kind::Finished) ends.push_back(event);
  }
  ASSERT_EQ(0, ::unlink(ends[0].path.c_str()));
  application.hangUp();
  RawClient next;
  const auto opened = openAfterHangUp(configuration("dies"), next);
  ASSERT_EQ(1u, opened.tasks.size());
  EXPECT_EQ(ends[1].task, opened.tasks[0].id);
}

TEST_F(ServiceTest, BadClientsEndOnlyTheirOwnConnection) {
  server_.serve("/a", 1'000);
  open();
  tasks();
  const pid_t before = service();
  const std::string tooLong("\xff\xff\xff\x7f", 4);
  const std::string noSession = encodeFrame(StartMessage{1});
  TransferCall noNumber;
  noNumber.request = URLRequest::requestWithURL(nullptr);
  TransferCall noRequest;
  noRequest.task = 1;
  const auto creating = [&](const TransferCall& call) {
    return encodeFrame(OpenMessage{1, configuration("bad")}) +
           encodeFrame(BatchMessage{2, {call}, true}) + encodeFrame(StartMessage{3});
  };
  for (const std::string& bytes :
       {std::string("\0\0\0\0", 4), tooLong, std::string("\1\0\0\0\xee", 5), noSession,
        creating(noRequest), creating(noNumber)}) {
    RawClient bad;
    bad.sendBytes(bytes);
    EXPECT_EQ(0u, bad.receive<StartedMessage>().number);
    EXPECT_EQ(before, service());
  }
  int error = 0;
  const FileDescriptor noHello = connectTo(socketPath(), &error);
  const std::string noise(Hello::kSize, 'x');
  sendAll(noHello.get(), noise.data(), noise.size());
  char end = 0;
  EXPECT_FALSE(receiveAll(noHello.get(), &end, 1, 30'000));
  EXPECT_TRUE(recorder_->waitFor(begin("/a"), "done"));
  EXPECT_EQ(before, service());
}

TEST_F(ServiceTest, AClientThatNeverReadsHoldsNobodyUp) {
  constexpr size_t kTasks = 2'000;
  std::vector<std::string> urls;
  for (size_t i = 0; i < kTasks; ++i) {
    const std::string path = "/" + std::to_string(i);
    server_.serve(path, 10);
    urls.push_back(server_.url(path));
  }
  server_.serve("/mine", 5'000);
  open();
  tasks();
  RawClient silent;
  silent.begin(configuration("silent"), urls);
  ASSERT_TRUE(eventually([&] { return server_.requestCount() >= kTasks; }, 60));
  EXPECT_TRUE(recorder_->waitFor(begin("/mine"), "done"));
  // Whoever comes to read after all gets every end.
  silent.hangUp();
  RawClient reader;
  openAfterHangUp(configuration("silent"), reader);
  reader.send(StartMessage{2});
  size_t ends = 0;
  while (ends < kTasks) {
    const auto events = reader.receive<EventsMessage>().events;
    ASSERT_FALSE(events.empty());
    for (const auto& event : events)
      ends += event.kind == TransferEvent::Kind::Finished;
  }
  EXPECT_EQ(kTasks, ends);
}

TEST_F(ServiceTest, LeavesWhenNothingIsLeftToDo) {
  const ScopedEnvironment idle("QN_TRANSFERD_IDLE_MS", "50");
  server_.serve("/a", 1'000);
  open();
  tasks();
  ASSERT_TRUE(recorder_->waitFor(begin("/a"), "done"));
  const pid_t process = service();
  ASSERT_NE(0, process);
  session_.reset();
  EXPECT_TRUE(qntest::waitForExit(process, 30));
  EXPECT_EQ(0, service());
}

}  // namespace
