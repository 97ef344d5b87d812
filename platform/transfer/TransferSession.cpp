#include "platform/transfer/TransferSession.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include <unistd.h>

#include "platform/Exception.h"
#include "platform/transfer/DataFetcher.h"
#include "platform/transfer/SessionCore.h"
#include "platform/transfer/TransferEngine.h"
#include "platform/transfer/TransferTask.h"
#include "platform/transfer/service/ServiceBackend.h"

namespace platform {
namespace {

// The session for one-shot fetches.
class SharedSession final : public URLSession {
 public:
  const URLSessionConfiguration& configuration() const override { return configuration_; }
  std::shared_ptr<URLSessionDownloadTask> downloadTaskWithRequest(
      const URLRequestPtr& request) override {
    TransferTaskInfo info;
    info.request = std::make_shared<const URLRequest>(request ? *request : URLRequest(nullptr));
    return std::make_shared<TransferTask>(info, std::weak_ptr<SessionCore>());
  }
  std::shared_ptr<URLSessionDownloadTask> downloadTaskWithResumeData(const DataPtr& data) override {
    return downloadTaskWithRequest(readResumeData(data).request);
  }
  void getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override {
    if (completion) completion({});
  }
  void getAllTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override {
    if (completion) completion({});
  }
  std::shared_ptr<URLSessionDataTask> dataTaskWithRequest(const URLRequestPtr& request,
                                                          DataCompletion completion) override {
    return DataFetcher::shared().makeTask(request, std::move(completion));
  }

 private:
  const URLSessionConfiguration configuration_{};
};

bool wantsService(const URLSessionConfiguration& configuration) {
  const char* asked = std::getenv("QN_USE_SERVICE");
  return configuration.useService || (asked && std::string_view(asked) == "1");
}

std::unique_ptr<TransferBackend> makeBackend(const URLSessionConfiguration& configuration) {
  if (wantsService(configuration)) return std::make_unique<service::ServiceBackend>(configuration);
  return std::make_unique<TransferEngine>(TransferLocation::fromConfiguration(configuration),
                                          TransferOptions::fromConfiguration(configuration),
                                          configuration.ephemeral);
}

std::shared_ptr<URLSession> makeSession(const URLSessionConfiguration& configuration,
                                        std::weak_ptr<URLSessionDelegate> delegate) {
  try {
    return TransferSession::make(configuration, std::move(delegate), makeBackend(configuration));
  } catch (const Exception&) {
    throw;
  } catch (const std::exception& failure) {  // no descriptor, no thread
    throw Exception("NSURLSessionException", std::string("The session \"") +
                                                 configuration.identifier +
                                                 "\" cannot be opened: " + failure.what());
  }
}

const bool installed = [] {
  URLSession::setProvider(&makeSession);
  URLSession::setSharedProvider(&sharedTransferSession);
  return true;
}();

}  // namespace

std::shared_ptr<URLSession> sharedTransferSession() {
  static const auto* const session =
      new std::shared_ptr<URLSession>(std::make_shared<SharedSession>());
  return *session;
}

std::shared_ptr<URLSession> TransferSession::make(const URLSessionConfiguration& configuration,
                                                  std::weak_ptr<URLSessionDelegate> delegate,
                                                  std::unique_ptr<TransferBackend> backend) {
  const std::shared_ptr<TransferSession> session(
      new TransferSession(configuration, std::move(delegate), std::move(backend)));
  session->core_->open(session);
  return session;
}

TransferSession::TransferSession(const URLSessionConfiguration& configuration,
                                 std::weak_ptr<URLSessionDelegate> delegate,
                                 std::unique_ptr<TransferBackend> backend)
    : configuration_(configuration),
      core_(std::make_shared<SessionCore>(std::move(backend), std::move(delegate))),
      process_(::getpid()) {}

std::string TransferSession::partialDirectory() const {
  return TransferLocation::fromConfiguration(configuration_).partialDirectory;
}

TransferSession::~TransferSession() {
  if (::getpid() == process_) {
    core_->close();
    return;
  }
  // A forked child has the objects, but neither their threads nor the store: leave them alone.
  static_cast<void>(new std::shared_ptr<SessionCore>(core_));
}

std::shared_ptr<URLSessionDownloadTask> TransferSession::downloadTaskWithRequest(
    const URLRequestPtr& request) {
  TransferCall create;
  create.request = std::make_shared<const URLRequest>(request ? *request : URLRequest(nullptr));
  return core_->makeTask(std::move(create));
}

std::shared_ptr<URLSessionDownloadTask> TransferSession::downloadTaskWithResumeData(
    const DataPtr& resumeData) {
  return core_->makeTask(readResumeData(resumeData));
}

void TransferSession::getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) {
  core_->getTasks(std::move(completion));
}

void TransferSession::getAllTasksWithCompletionHandler(
    std::function<void(const Tasks&)> completion) {
  core_->getTasks(std::move(completion));
}

void TransferSession::tellEndOfBackgroundEvents() {
  core_->tellEndOfEvents();
}

std::shared_ptr<URLSessionDataTask> TransferSession::dataTaskWithRequest(
    const URLRequestPtr& request, DataCompletion completion) {
  return DataFetcher::shared().makeTask(request, std::move(completion));
}

}  // namespace platform
