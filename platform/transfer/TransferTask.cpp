#include "platform/transfer/TransferTask.h"

#include <charconv>
#include <string_view>
#include <utility>

#include "platform/transfer/SessionCore.h"

namespace platform {
namespace {

constexpr std::string_view kResumeMagic = "QNRD1";

// Fields, each ended by NUL.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : text_(text) {}

  std::optional<std::string_view> next() {
    const size_t end = text_.find('\0');
    if (end == std::string_view::npos) return std::nullopt;
    const auto field = text_.substr(0, end);
    text_.remove_prefix(end + 1);
    return field;
  }

 private:
  std::string_view text_;
};

URLSessionTaskState stateOf(const TransferTaskInfo& info) {
  if (info.cancelled) return URLSessionTaskState::Canceling;
  return info.running ? URLSessionTaskState::Running : URLSessionTaskState::Suspended;
}

}  // namespace

TransferTask::TransferTask(const TransferTaskInfo& info, std::weak_ptr<SessionCore> core)
    : id_(info.id),
      request_(info.request),
      core_(std::move(core)),
      state_(stateOf(info)),
      description_(info.description),
      response_(info.response),
      received_(info.received),
      expected_(info.expected) {}

URLSessionTaskState TransferTask::state() const {
  MutexLock lock(mutex_);
  return state_;
}

std::optional<std::string> TransferTask::taskDescription() const {
  MutexLock lock(mutex_);
  return description_;
}

URLRequestPtr TransferTask::originalRequest() const {
  return request_;
}

URLResponsePtr TransferTask::response() const {
  MutexLock lock(mutex_);
  return response_;
}

ErrorPtr TransferTask::error() const {
  MutexLock lock(mutex_);
  return error_;
}

int64_t TransferTask::countOfBytesReceived() const {
  MutexLock lock(mutex_);
  return received_;
}

int64_t TransferTask::countOfBytesExpectedToReceive() const {
  MutexLock lock(mutex_);
  return expected_;
}

std::optional<uint64_t> TransferTask::hashOfBytesReceived() const {
  MutexLock lock(mutex_);
  return hash_;
}

URLSessionTaskWaitReason TransferTask::waitReason() const {
  URLSessionTaskWaitReason reason;
  int64_t retryAtMs = 0;
  {
    MutexLock lock(mutex_);
    if (state_ == URLSessionTaskState::Suspended) {
      reason.wait = URLSessionTaskWait::Suspended;
      return reason;
    }
    if (state_ != URLSessionTaskState::Running) return reason;
    reason = wait_;
    retryAtMs = retryAtMs_;
  }
  if (reason.wait != URLSessionTaskWait::Retry) return reason;
  if (const auto core = core_.lock()) {
    reason.secondsUntilRetry = static_cast<double>(core->millisecondsUntil(retryAtMs)) / 1000;
  }
  return reason;
}

void TransferTask::setTaskDescription(std::optional<std::string> description) {
  change(TransferCall::Kind::SetDescription, std::move(description));
}

void TransferTask::resume() {
  change(TransferCall::Kind::Resume, std::nullopt);
}

void TransferTask::suspend() {
  change(TransferCall::Kind::Suspend, std::nullopt);
}

void TransferTask::cancel() {
  change(TransferCall::Kind::Cancel, std::nullopt);
}

void TransferTask::change(TransferCall::Kind kind, std::optional<std::string> description) {
  // What has completed stays so.
  if (state() == URLSessionTaskState::Completed) return;
  const auto core = core_.lock();
  if (!core) return;
  TransferCall call;
  call.kind = kind;
  call.task = id_;
  call.description = std::move(description);
  core->call(*this, std::move(call));
  if (kind == TransferCall::Kind::Resume || kind == TransferCall::Kind::Cancel) core->start();
}

// False when nothing changes. A cancelled task only takes a description.
bool TransferTask::_act(const TransferCall& call) {
  using State = URLSessionTaskState;
  if (state_ == State::Completed) return false;
  if (state_ == State::Canceling && call.kind != TransferCall::Kind::SetDescription) return false;
  switch (call.kind) {
    case TransferCall::Kind::SetDescription:
      if (description_ == call.description) return false;
      description_ = call.description;
      return true;
    case TransferCall::Kind::Resume:
      return std::exchange(state_, State::Running) != State::Running;
    case TransferCall::Kind::Suspend:
      return std::exchange(state_, State::Suspended) != State::Suspended;
    case TransferCall::Kind::Cancel:
      state_ = State::Canceling;
      return true;
    case TransferCall::Kind::Create:
      return true;
    case TransferCall::Kind::Acknowledge:
      break;
  }
  return false;
}

DataPtr makeResumeData(const TransferTask& task, const std::string& token) {
  std::string text(kResumeMagic);
  const auto append = [&text](const std::string& field) { text.append(field).push_back('\0'); };
  const URLRequestPtr request = task.originalRequest();
  append("");
  append(std::to_string(task.taskIdentifier()));
  append(token);
  append(request->HTTPMethod());
  append(request->url() ? request->url()->absoluteString() : "");
  for (const auto& [name, value] : request->allHTTPHeaderFields().fields()) {
    append(name);
    append(value);
  }
  return std::make_shared<const Data>(text.begin(), text.end());
}

TransferCall readResumeData(const DataPtr& data) {
  TransferCall call;
  call.kind = TransferCall::Kind::Create;
  auto request = std::make_shared<URLRequest>(nullptr);
  call.request = request;
  if (!data) return call;
  FieldReader reader({reinterpret_cast<const char*>(data->data()), data->size()});
  const auto magic = reader.next();
  const auto task = reader.next();
  const auto token = reader.next();
  const auto method = reader.next();
  const auto url = reader.next();
  if (!url || *magic != kResumeMagic) return call;
  std::from_chars(task->data(), task->data() + task->size(), call.source);
  call.sourceToken = std::string(*token);
  request->setHTTPMethod(std::string(*method));
  if (!url->empty()) request->setURL(URL::URLWithString(*url));
  for (auto name = reader.next(); name; name = reader.next()) {
    const auto value = reader.next();
    if (!value) break;
    request->setValueForHTTPHeaderField(std::string(*value), std::string(*name));
  }
  return call;
}

}  // namespace platform
