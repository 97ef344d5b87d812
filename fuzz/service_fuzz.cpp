// Any bytes as what a client says to the transfer service: frames as they are sent, the last of
// which may be cut off. What is decoded is written again as it was read, and a session takes it in
// or ends the client; what it then remembers is found again by the next service on its store.
// Nothing is transferred.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Log.h"
#include "platform/transfer/TransferEngine.h"
#include "platform/transfer/service/ServiceConnection.h"
#include "platform/transfer/service/ServiceSession.h"
#include "platform/transfer/service/SessionRegistry.h"
#include "platform/transfer/service/Wire.h"

namespace {

using namespace platform;
using namespace platform::service;

void demand(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

class Directory {
 public:
  Directory() {
    std::string name = (std::filesystem::temp_directory_path() / "qn-fuzz-XXXXXX").string();
    demand(::mkdtemp(name.data()) != nullptr, "no temporary directory");
    path_ = name;
    setErrorLog([](const std::string&) {});
  }
  ~Directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

const std::string& root() {
  static const Directory directory;
  return directory.path();
}

// A service that has this one session open, on the store of the one before it unless `anew`.
std::unique_ptr<ServiceSession> openSession(bool anew) {
  static const SessionRegistry registry(root() + "/service");
  SessionRecord record{"fuzz", root(), "", false, 0};
  const auto location = TransferLocation::fromConfiguration(record.configuration());
  auto engine = std::make_unique<TransferEngine>(location, TransferOptions{}, anew);
  return std::make_unique<ServiceSession>(registry, std::move(record), std::move(engine), [] {});
}

std::string tasksOf(ServiceSession& session) {
  OpenedMessage opened;
  opened.tasks = session.tasks();
  return encodeFrame(opened);
}

// False when it ends the client.
bool handle(ServiceSession& session, ServiceConnection& connection, Message&& message) {
  if (const auto* open = std::get_if<OpenMessage>(&message)) {
    static_cast<void>(session.adopt(TransferOptions::fromConfiguration(open->configuration)));
    session.open(open->front);
    session.settleDelivered();
    return true;
  }
  if (session.take(connection, message)) return true;
  session.submit(connection);
  if (std::holds_alternative<StartMessage>(message)) return true;
  if (!std::holds_alternative<GoodbyeMessage>(message)) return false;
  static_cast<void>(session.commit());
  session.detach();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<ServiceSession> session;
  ServiceConnection connection{FileDescriptor()};
  for (bool goesOn = true; goesOn && rest.size() > 4;) {
    const size_t length = WireReader(rest).u32();
    const std::string_view body = rest.substr(4, length);
    rest.remove_prefix(4 + body.size());
    auto message = decodeMessage(body);
    if (!message) break;
    const std::string frame = encodeFrame(*message);
    const auto again = decodeMessage(std::string_view(frame).substr(4));
    demand(again && encodeFrame(*again) == frame, "a message is not read as it was written");
    if (!session) session = openSession(true);
    goesOn = handle(*session, connection, std::move(*message));
    connection.flush();
  }
  if (!session) return 0;
  session->submit(connection);
  const std::string before = tasksOf(*session);
  session.reset();
  demand(tasksOf(*openSession(false)) == before, "the next service finds other tasks");
  return 0;
}
