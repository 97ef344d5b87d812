#include <cstdio>
#include <future>
#include <map>
#include <memory>

#include "bench/transfer/Client.h"
#include "platform/FileManager.h"
#include "platform/URLSession.h"

namespace qnbench {
namespace {

using namespace platform;
using Session = std::shared_ptr<URLSession>;
using Task = std::shared_ptr<URLSessionDownloadTask>;

// Makes the calls that a download of several qualities makes: four tasks of each, the next one made
// when one has finished, described before and after it is resumed, the file moved to its place.
class Driver final : public URLSessionDelegate {
 public:
  explicit Driver(const ClientOptions& options) : options_(options), next_(options.qualities) {}

  void begin(const Session& session) {
    left_ = static_cast<long>(options_.qualities) * options_.segments;
    for (int quality = 0; quality < options_.qualities; ++quality) {
      for (int i = 0; i < 4; ++i)
        beginNext(*session, quality);
    }
  }
  bool wait() { return done_.get_future().get(); }

 private:
  void beginNext(URLSession& session, int quality) {
    if (next_[quality] == options_.segments) return;
    const int index = next_[quality]++;
    const std::string name = std::to_string(quality * options_.segments + index);
    const auto url =
        URL::URLWithString(options_.base + "/" + std::to_string(options_.bytes) + "/" + name);
    const auto task = session.downloadTaskWithRequest(URLRequest::requestWithURL(url));
    const std::string identity = R"({"manifestURL":"http://127.0.0.1/movie/manifest.mpd",)"
                                 R"("qualityId":"quality-)" +
                                 std::to_string(quality) + R"(","resourceIndex":)" +
                                 std::to_string(index) + R"(,"status":)";
    task->setTaskDescription(identity + "1}");
    places_[task.get()] = {quality, options_.directory + "/" + name};
    task->resume();
    task->setTaskDescription(identity + "2}");
  }

  void URLSessionDownloadTaskDidFinishDownloadingToURL(const Session& session, const Task& task,
                                                       const URLPtr& location) override {
    const auto place = places_.extract(task.get()).mapped();
    if (FileManager::defaultManager().moveItem(*location->filePath(), place.second)) failed_ = true;
    task->setTaskDescription(std::nullopt);
    beginNext(*session, place.first);
    if (--left_ == 0) done_.set_value(!failed_);
  }
  void URLSessionTaskDidCompleteWithError(const Session&, const Task&,
                                          const ErrorPtr& error) override {
    if (!error) return;
    std::fprintf(stderr, "%s\n", error->localizedDescription().c_str());
    failed_ = true;
    if (--left_ == 0) done_.set_value(false);
  }

  const ClientOptions options_;
  std::vector<int> next_;
  std::map<const URLSessionDownloadTask*, std::pair<int, std::string>> places_;
  long left_ = 0;
  bool failed_ = false;
  std::promise<bool> done_;
};

}  // namespace

int runSession(const ClientOptions& options) {
  auto configuration =
      URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("bench");
  configuration.stateDirectory = options.state;
  configuration.partialDirectory = options.directory;
  configuration.caFile = options.caFile;
  configuration.useService = options.useService;
  const auto driver = std::make_shared<Driver>(options);
  const auto session = URLSession::sessionWithConfiguration(configuration, driver);
  // The first tasks are made inside the answer: nothing is delivered meanwhile.
  session->getTasksWithCompletionHandler([&](const auto&) { driver->begin(session); });
  return driver->wait() ? 0 : 1;
}

}  // namespace qnbench
