#pragma once

#include <functional>
#include <memory>

#include "platform/URLSession.h"
#include "platform/transfer/TransferBackend.h"

namespace platform {

class SessionCore;

// The front of a background session: the objects that the application holds. What they say of a
// task follows the backend's events; delegate calls come from a thread of the session's own.
class TransferSession final : public URLSession {
 public:
  static std::shared_ptr<URLSession> make(const URLSessionConfiguration& configuration,
                                          std::weak_ptr<URLSessionDelegate> delegate,
                                          std::unique_ptr<TransferBackend> backend);
  ~TransferSession() override;

  const URLSessionConfiguration& configuration() const override { return configuration_; }
  std::string partialDirectory() const override;
  std::shared_ptr<URLSessionDownloadTask> downloadTaskWithRequest(
      const URLRequestPtr& request) override;
  std::shared_ptr<URLSessionDownloadTask> downloadTaskWithResumeData(
      const DataPtr& resumeData) override;
  void getTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override;
  void getAllTasksWithCompletionHandler(std::function<void(const Tasks&)> completion) override;
  void tellEndOfBackgroundEvents() override;
  std::shared_ptr<URLSessionDataTask> dataTaskWithRequest(const URLRequestPtr& request,
                                                          DataCompletion completion) override;

 private:
  TransferSession(const URLSessionConfiguration& configuration,
                  std::weak_ptr<URLSessionDelegate> delegate,
                  std::unique_ptr<TransferBackend> backend);

  const URLSessionConfiguration configuration_;
  const std::shared_ptr<SessionCore> core_;
  const int process_;
};

}  // namespace platform
