#include "platform/transfer/service/ServiceMessages.h"

#include <limits>
#include <utility>

#include "platform/transfer/service/Wire.h"

namespace platform::service {
namespace {

enum class Kind : uint8_t {
  Open = 1,
  Start,
  Reserve,
  Batch,
  Goodbye,
  Opened = 64,
  Started,
  Reserved,
  Done,
  Events
};

// An enumeration's value, bounded by its last one.
template <class E>
E readEnum(WireReader& in, E last) {
  const uint8_t value = in.u8();
  if (value > static_cast<uint8_t>(last)) {
    in.fail();
    return E{};
  }
  return static_cast<E>(value);
}

void writeOptional(WireWriter& out, const std::optional<std::string>& value) {
  out.boolean(value.has_value());
  if (value) out.text(*value);
}

std::optional<std::string> readOptional(WireReader& in) {
  if (!in.boolean()) return std::nullopt;
  return in.text();
}

void writeHeaders(WireWriter& out, const HTTPHeaders& headers) {
  out.u32(static_cast<uint32_t>(headers.fields().size()));
  for (const auto& [name, value] : headers.fields()) {
    out.text(name);
    out.text(value);
  }
}

HTTPHeaders readHeaders(WireReader& in) {
  HTTPHeaders headers;
  for (uint32_t left = in.count(8); left > 0 && !in.failed(); --left) {
    std::string name = in.text();
    headers.set(std::move(name), in.text());
  }
  return headers;
}

void writeUrl(WireWriter& out, const URLPtr& url) {
  out.boolean(url != nullptr);
  if (url) out.text(url->absoluteString());
}

URLPtr readUrl(WireReader& in) {
  if (!in.boolean()) return nullptr;
  const std::string text = in.text();
  if (in.failed()) return nullptr;
  URLPtr url = URL::URLWithString(text);
  if (!url) in.fail();
  return url;
}

void writeRequest(WireWriter& out, const URLRequestPtr& request) {
  out.boolean(request != nullptr);
  if (!request) return;
  writeUrl(out, request->url());
  out.text(request->HTTPMethod());
  writeHeaders(out, request->allHTTPHeaderFields());
}

// Nothing is made or told of without one.
URLRequestPtr readRequest(WireReader& in) {
  if (!in.boolean()) {
    in.fail();
    return nullptr;
  }
  auto request = URLRequest::requestWithURL(readUrl(in));
  request->setHTTPMethod(in.text());
  const HTTPHeaders headers = readHeaders(in);
  for (const auto& [name, value] : headers.fields())
    request->setValueForHTTPHeaderField(value, name);
  return request;
}

void writeResponse(WireWriter& out, const HTTPResponsePtr& response) {
  out.boolean(response != nullptr);
  if (!response) return;
  writeUrl(out, response->url());
  out.i64(response->statusCode());
  writeHeaders(out, response->allHeaderFields());
  out.i64(response->expectedContentLength());
}

HTTPResponsePtr readResponse(WireReader& in) {
  if (!in.boolean()) return nullptr;
  URLPtr url = readUrl(in);
  const int64_t status = in.i64();
  if (status < 0 || status > 999) in.fail();
  HTTPHeaders headers = readHeaders(in);
  const int64_t length = in.i64();
  if (in.failed()) return nullptr;
  return std::make_shared<const HTTPURLResponse>(std::move(url), static_cast<int>(status),
                                                 std::move(headers), length);
}

// Of the user info what a transfer's error holds: texts, whole numbers and bytes.
void writeError(WireWriter& out, const ErrorPtr& error) {
  out.boolean(error != nullptr);
  if (!error) return;
  out.text(error->domain());
  out.i64(error->code());
  WireWriter values;
  uint32_t count = 0;
  for (const auto& [key, value] : error->userInfo()) {
    if (const auto* text = std::any_cast<std::string>(&value)) {
      values.text(key);
      values.u8('s');
      values.text(*text);
    } else if (const auto* number = std::any_cast<int64_t>(&value)) {
      values.text(key);
      values.u8('i');
      values.i64(*number);
    } else if (const auto* data = std::any_cast<DataPtr>(&value); data && *data) {
      values.text(key);
      values.u8('d');
      values.text({reinterpret_cast<const char*>((*data)->data()), (*data)->size()});
    } else {
      continue;
    }
    ++count;
  }
  out.u32(count);
  out.raw(values.bytes());
}

ErrorPtr readError(WireReader& in) {
  if (!in.boolean()) return nullptr;
  std::string domain = in.text();
  const int64_t code = in.i64();
  Dictionary userInfo;
  for (uint32_t left = in.count(9); left > 0 && !in.failed(); --left) {
    std::string key = in.text();
    switch (in.u8()) {
      case 's':
        userInfo[std::move(key)] = in.text();
        break;
      case 'i':
        userInfo[std::move(key)] = in.i64();
        break;
      case 'd': {
        const std::string bytes = in.text();
        userInfo[std::move(key)] =
            DataPtr(std::make_shared<const Data>(bytes.begin(), bytes.end()));
        break;
      }
      default:
        in.fail();
    }
  }
  if (in.failed()) return nullptr;
  return Error::errorWithDomain(std::move(domain), code, std::move(userInfo));
}

void writeStrings(WireWriter& out, const std::vector<std::string>& strings) {
  out.u32(static_cast<uint32_t>(strings.size()));
  for (const std::string& string : strings)
    out.text(string);
}

std::vector<std::string> readStrings(WireReader& in) {
  std::vector<std::string> strings;
  for (uint32_t left = in.count(4); left > 0 && !in.failed(); --left)
    strings.push_back(in.text());
  return strings;
}

void writeLaunchCommand(WireWriter& out, const std::optional<LaunchCommand>& command) {
  out.boolean(command.has_value());
  if (!command) return;
  writeStrings(out, command->argv);
  out.u32(static_cast<uint32_t>(command->environment.size()));
  for (const auto& [name, value] : command->environment) {
    out.text(name);
    out.text(value);
  }
  out.text(command->workingDirectory);
}

std::optional<LaunchCommand> readLaunchCommand(WireReader& in) {
  if (!in.boolean()) return std::nullopt;
  LaunchCommand command;
  command.argv = readStrings(in);
  for (uint32_t left = in.count(8); left > 0 && !in.failed(); --left) {
    std::string name = in.text();
    command.environment[std::move(name)] = in.text();
  }
  command.workingDirectory = in.text();
  return command;
}

void writeConfiguration(WireWriter& out, const URLSessionConfiguration& c) {
  out.text(c.identifier);
  out.boolean(c.ephemeral);
  out.boolean(c.sessionSendsLaunchEvents);
  out.boolean(c.allowsCellularAccess);
  out.boolean(c.discretionary);
  out.text(c.stateDirectory);
  out.text(c.partialDirectory);
  out.i64(c.maximumConnectionsPerHost);
  out.i64(c.maximumTransfers);
  out.i64(c.maximumBytesPerSecond);
  out.real(c.connectTimeoutSeconds);
  out.real(c.stallTimeoutSeconds);
  out.real(c.retryBoundSeconds);
  out.real(c.diskFullBoundSeconds);
  out.text(c.caFile);
  writeLaunchCommand(out, c.launchCommand);
}

int readLimit(WireReader& in) {
  const int64_t value = in.i64();
  if (value < 0 || value > 1'000'000) in.fail();
  return in.failed() ? 0 : static_cast<int>(value);
}

URLSessionConfiguration readConfiguration(WireReader& in) {
  URLSessionConfiguration c;
  c.identifier = in.text();
  c.ephemeral = in.boolean();
  c.sessionSendsLaunchEvents = in.boolean();
  c.allowsCellularAccess = in.boolean();
  c.discretionary = in.boolean();
  c.stateDirectory = in.text();
  c.partialDirectory = in.text();
  c.maximumConnectionsPerHost = readLimit(in);
  c.maximumTransfers = readLimit(in);
  c.maximumBytesPerSecond = in.i64();
  c.connectTimeoutSeconds = in.real();
  c.stallTimeoutSeconds = in.real();
  c.retryBoundSeconds = in.real();
  c.diskFullBoundSeconds = in.real();
  c.caFile = in.text();
  c.launchCommand = readLaunchCommand(in);
  return c;
}

void writeCall(WireWriter& out, const TransferCall& call) {
  out.u8(static_cast<uint8_t>(call.kind));
  out.u64(call.task);
  switch (call.kind) {
    case TransferCall::Kind::Create:
      writeRequest(out, call.request);
      out.u64(call.source);
      out.text(call.sourceToken);
      writeOptional(out, call.description);
      break;
    case TransferCall::Kind::SetDescription:
      writeOptional(out, call.description);
      break;
    case TransferCall::Kind::Resume:
    case TransferCall::Kind::Suspend:
    case TransferCall::Kind::Cancel:
    case TransferCall::Kind::Acknowledge:
      break;
  }
}

// From 1; the store's numbers are signed.
TransferTaskId readTaskId(WireReader& in) {
  const uint64_t id = in.u64();
  if (id == 0 || id > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) in.fail();
  return id;
}

TransferCall readCall(WireReader& in) {
  TransferCall call;
  call.kind = readEnum(in, TransferCall::Kind::Acknowledge);
  call.task = readTaskId(in);
  if (call.kind == TransferCall::Kind::Create) {
    call.request = readRequest(in);
    call.source = in.u64();
    call.sourceToken = in.text();
  }
  if (call.kind == TransferCall::Kind::Create || call.kind == TransferCall::Kind::SetDescription)
    call.description = readOptional(in);
  return call;
}

void writeTask(WireWriter& out, const TransferTaskInfo& task) {
  out.u64(task.id);
  writeRequest(out, task.request);
  writeOptional(out, task.description);
  out.boolean(task.running);
  out.u8(static_cast<uint8_t>(task.stage));
  out.boolean(task.cancelled);
  writeResponse(out, task.response);
  out.i64(task.received);
  out.i64(task.expected);
}

TransferTaskInfo readTask(WireReader& in) {
  TransferTaskInfo task;
  task.id = readTaskId(in);
  task.request = readRequest(in);
  task.description = readOptional(in);
  task.running = in.boolean();
  task.stage = readEnum(in, TransferStage::Failed);
  task.cancelled = in.boolean();
  task.response = readResponse(in);
  task.received = in.i64();
  task.expected = in.i64();
  return task;
}

void writeEvent(WireWriter& out, const TransferEvent& event) {
  out.u8(static_cast<uint8_t>(event.kind));
  out.u64(event.task);
  out.i64(event.received);
  out.i64(event.expected);
  out.u64(event.responseNumber);
  out.i64(event.base);
  writeResponse(out, event.response);
  out.u8(static_cast<uint8_t>(event.wait.wait));
  out.real(event.wait.secondsUntilRetry);
  out.text(event.wait.detail);
  out.i64(event.retryAtMs);
  out.text(event.path);
  out.boolean(event.contentHash.has_value());
  if (event.contentHash) out.u64(*event.contentHash);
  writeError(out, event.error);
  out.text(event.resumeToken);
  out.boolean(event.held);
}

TransferEvent readEvent(WireReader& in) {
  TransferEvent event;
  event.kind = readEnum(in, TransferEvent::Kind::Failed);
  event.task = readTaskId(in);
  event.received = in.i64();
  event.expected = in.i64();
  event.responseNumber = in.u64();
  event.base = in.i64();
  event.response = readResponse(in);
  event.wait.wait = readEnum(in, URLSessionTaskWait::DiskFull);
  event.wait.secondsUntilRetry = in.real();
  event.wait.detail = in.text();
  event.retryAtMs = in.i64();
  event.path = in.text();
  if (in.boolean()) event.contentHash = in.u64();
  event.error = readError(in);
  event.resumeToken = in.text();
  event.held = in.boolean();
  return event;
}

template <class T, class Write>
void writeList(WireWriter& out, const std::vector<T>& list, Write write) {
  out.u32(static_cast<uint32_t>(list.size()));
  for (const T& item : list)
    write(out, item);
}

template <class T, class Read>
std::vector<T> readList(WireReader& in, size_t minimumBytes, Read read) {
  std::vector<T> list;
  for (uint32_t left = in.count(minimumBytes); left > 0 && !in.failed(); --left)
    list.push_back(read(in));
  return list;
}

void writeBody(WireWriter& out, const OpenMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Open));
  out.u64(m.number);
  writeConfiguration(out, m.configuration);
  out.boolean(m.again);
  out.u64(m.front);
}

void writeBody(WireWriter& out, const StartMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Start));
  out.u64(m.number);
}

void writeBody(WireWriter& out, const ReserveMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Reserve));
  out.u64(m.number);
  out.u32(m.count);
}

void writeBody(WireWriter& out, const BatchMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Batch));
  out.u64(m.number);
  writeList(out, m.calls, writeCall);
  out.boolean(m.now);
  out.boolean(m.more);
}

void writeBody(WireWriter& out, const GoodbyeMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Goodbye));
  out.u64(m.number);
}

void writeBody(WireWriter& out, const OpenedMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Opened));
  out.u64(m.number);
  out.text(m.refusal);
  out.boolean(m.held);
  out.boolean(m.more);
  writeList(out, m.tasks, writeTask);
}

void writeBody(WireWriter& out, const StartedMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Started));
  out.u64(m.number);
  out.u64(m.heldEvents);
}

void writeBody(WireWriter& out, const ReservedMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Reserved));
  out.u64(m.number);
  out.u64(m.first);
}

void writeBody(WireWriter& out, const DoneMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Done));
  out.u64(m.number);
}

void writeBody(WireWriter& out, const EventsMessage& m) {
  out.u8(static_cast<uint8_t>(Kind::Events));
  writeList(out, m.events, writeEvent);
}

Message readBody(WireReader& in) {
  const auto kind = static_cast<Kind>(in.u8());
  if (kind == Kind::Events) return EventsMessage{readList<TransferEvent>(in, 60, readEvent)};
  const uint64_t number = in.u64();
  switch (kind) {
    case Kind::Open: {
      OpenMessage open;
      open.number = number;
      open.configuration = readConfiguration(in);
      open.again = in.boolean();
      open.front = in.u64();
      return open;
    }
    case Kind::Start:
      return StartMessage{number};
    case Kind::Reserve:
      return ReserveMessage{number, in.u32()};
    case Kind::Batch: {
      BatchMessage batch;
      batch.number = number;
      batch.calls = readList<TransferCall>(in, 9, readCall);
      batch.now = in.boolean();
      batch.more = in.boolean();
      return batch;
    }
    case Kind::Goodbye:
      return GoodbyeMessage{number};
    case Kind::Opened: {
      OpenedMessage opened;
      opened.number = number;
      opened.refusal = in.text();
      opened.held = in.boolean();
      opened.more = in.boolean();
      opened.tasks = readList<TransferTaskInfo>(in, 30, readTask);
      return opened;
    }
    case Kind::Started:
      return StartedMessage{number, in.u64()};
    case Kind::Reserved:
      return ReservedMessage{number, in.u64()};
    case Kind::Done:
      return DoneMessage{number};
    case Kind::Events:
      break;
  }
  in.fail();
  return GoodbyeMessage{};
}

}  // namespace

std::string encodeFrame(const Message& message) {
  WireWriter body;
  std::visit([&](const auto& m) { writeBody(body, m); }, message);
  WireWriter frame;
  frame.text(body.bytes());
  return frame.take();
}

std::optional<Message> decodeMessage(std::string_view body) {
  WireReader in(body);
  Message message = readBody(in);
  if (!in.atEnd()) return std::nullopt;
  return message;
}

}  // namespace platform::service
