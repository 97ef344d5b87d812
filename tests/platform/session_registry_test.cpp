#include <gtest/gtest.h>

#include "platform/Exception.h"
#include "platform/URLSession.h"

namespace platform {
namespace {

class NamedSession : public URLSession {
 public:
  explicit NamedSession(std::string name) { configuration_.identifier = std::move(name); }
  const URLSessionConfiguration& configuration() const override { return configuration_; }
  std::shared_ptr<URLSessionDownloadTask> downloadTaskWithRequest(const URLRequestPtr&) override {
    return nullptr;
  }
  std::shared_ptr<URLSessionDownloadTask> downloadTaskWithResumeData(const DataPtr&) override {
    return nullptr;
  }
  void getTasksWithCompletionHandler(std::function<void(const Tasks&)>) override {}
  void getAllTasksWithCompletionHandler(std::function<void(const Tasks&)>) override {}
  std::shared_ptr<URLSessionDataTask> dataTaskWithRequest(const URLRequestPtr&,
                                                          DataCompletion) override {
    return nullptr;
  }

 private:
  URLSessionConfiguration configuration_;
};

URLSession::Provider providerOf(const std::string& prefix) {
  return [prefix](const URLSessionConfiguration& configuration, std::weak_ptr<URLSessionDelegate>) {
    return std::make_shared<NamedSession>(prefix + configuration.identifier);
  };
}

std::string made(const std::string& identifier) {
  const auto configuration =
      URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
  return URLSession::sessionWithConfiguration(configuration, {})->configuration().identifier;
}

// One test: what was installed first in this process stays for good.
TEST(URLSessionRegistry, TheFirstProviderIsTheOneThatNullRestores) {
  try {
    made("x");
    FAIL();
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), "NSURLSessionException");
  }
  EXPECT_THROW(URLSession::sharedSession(), Exception);

  URLSession::setProvider(providerOf("real:"));
  URLSession::setProvider(providerOf("test:"));
  EXPECT_EQ(made("x"), "test:x");
  URLSession::setProvider(nullptr);
  EXPECT_EQ(made("x"), "real:x");

  URLSession::setSharedProvider([] { return std::make_shared<NamedSession>("shared"); });
  EXPECT_EQ(URLSession::sharedSession()->configuration().identifier, "shared");
}

}  // namespace
}  // namespace platform
