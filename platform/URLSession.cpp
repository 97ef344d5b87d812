#include "platform/URLSession.h"

#include <utility>

#include "platform/BootIdentifier.h"
#include "platform/Exception.h"
#include "platform/Mutex.h"

namespace platform {
namespace {

using SharedProvider = std::function<std::shared_ptr<URLSession>()>;

// The first function that was installed is what null restores.
template <class Function>
struct Slot {
  Function first;
  Function current;

  void install(Function next) {
    if (!first) first = next;
    current = next ? std::move(next) : first;
  }
};

struct Registry {
  Mutex mutex;
  Slot<URLSession::Provider> provider GUARDED_BY(mutex);
  Slot<SharedProvider> shared GUARDED_BY(mutex);
};

// Made on first use, so that a static initialiser of another source may install a provider; never
// destroyed.
Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

[[noreturn]] void throwNoImplementation() {
  throw Exception("NSURLSessionException", "No session implementation is installed");
}

}  // namespace

URLSessionConfiguration URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
    std::string identifier) {
  URLSessionConfiguration configuration;
  configuration.identifier = std::move(identifier);
  return configuration;
}

URLSessionDelegate::~URLSessionDelegate() = default;

void URLSessionDelegate::URLSessionDownloadTaskDidWriteData(
    const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDownloadTask>&, int64_t,
    int64_t, int64_t) {}

void URLSessionDelegate::URLSessionDownloadTaskDidFinishDownloadingToURL(
    const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDownloadTask>&,
    const URLPtr&) {}

void URLSessionDelegate::URLSessionTaskDidCompleteWithError(
    const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDownloadTask>&,
    const ErrorPtr&) {}

void URLSessionDelegate::URLSessionDidFinishEventsForBackgroundURLSession(
    const std::shared_ptr<URLSession>&) {}

URLSessionDownloadTask::~URLSessionDownloadTask() = default;

URLSessionDataTask::~URLSessionDataTask() = default;

URLSession::~URLSession() = default;

std::string URLSession::bootIdentifier() const {
  return currentBootIdentifier();
}

void URLSession::tellEndOfBackgroundEvents() {}

std::string URLSession::partialDirectory() const {
  return {};
}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(
    const URLSessionConfiguration& configuration, std::weak_ptr<URLSessionDelegate> delegate) {
  Provider provider;
  {
    MutexLock lock(registry().mutex);
    provider = registry().provider.current;
  }
  if (!provider) throwNoImplementation();
  return provider(configuration, std::move(delegate));
}

std::shared_ptr<URLSession> URLSession::sharedSession() {
  SharedProvider provider;
  {
    MutexLock lock(registry().mutex);
    provider = registry().shared.current;
  }
  if (!provider) throwNoImplementation();
  return provider();
}

void URLSession::setProvider(Provider provider) {
  MutexLock lock(registry().mutex);
  registry().provider.install(std::move(provider));
}

void URLSession::setSharedProvider(SharedProvider provider) {
  MutexLock lock(registry().mutex);
  registry().shared.install(std::move(provider));
}

}  // namespace platform
