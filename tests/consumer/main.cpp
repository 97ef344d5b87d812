// Uses what crosses the border of the shared library: exceptions, classes to derive from, values
// and the registry.

#include <cstdio>
#include <memory>
#include <string>

#include "engine/QNMovieDownloader.h"
#include "platform/Exception.h"
#include "platform/JSON.h"
#include "platform/NotificationCenter.h"
#include "platform/URLSession.h"
#include "platform/host/QNLog.h"
#include "platform/host/QuillonStreamDownloaderInterface.h"
#include "playlist/QNPlaylistFactory.h"

namespace {

int failures = 0;

void expect(bool condition, const char* what) {
  if (condition) return;
  std::printf("failed: %s\n", what);
  ++failures;
}

class Plugin : public QuillonStreamDownloaderInterface {
 public:
  std::string getId() const override { return "consumer"; }
  std::optional<std::vector<std::string>> getDownloadedQualityIds(const std::string&) override {
    return std::vector<std::string>{"q"};
  }
};

class Delegate : public platform::URLSessionDelegate {};

void checkPlatform() {
  bool caught = false;
  try {
    platform::assertThat(false, "text");
  } catch (const platform::Exception& exception) {
    caught = exception.reason() == "text";
  }
  expect(caught, "an exception of the library is caught by its type");

  const auto value = platform::JSON::parse(R"({"a":[1]})");
  expect(value && value->dump() == R"({"a":[1]})", "JSON");

  int posted = 0;
  auto& center = platform::NotificationCenter::defaultCenter();
  center.addObserver("n", [&posted] { ++posted; });
  center.postNotification("n");
  expect(posted == 1, "notifications");
}

void checkRegistry() {
  const std::shared_ptr<platform::URLSessionDelegate> delegate = std::make_shared<Delegate>();
  expect(std::dynamic_pointer_cast<Delegate>(delegate) != nullptr, "a delegate of one's own");
  QuillonStreamDownloaderInterface::addFactoryFunction(
      +[]() -> std::shared_ptr<QuillonStreamDownloaderInterface> {
        return std::make_shared<Plugin>();
      });
  const auto plugin = QuillonStreamDownloaderInterface::pluginWithId("consumer");
  expect(plugin && plugin->getDownloadedQualityIds("")->size() == 1, "a plug-in of one's own");
}

// What is no manifest is refused with the library's exception, the parsers' own stay inside.
void checkEngine() {
  expect(QNMovieDownloader::getDefaultManifestLocalName() == "manifest.mpd", "the engine");
  QNSetLogTap([](int) { return false; }, [](int, const std::string&) {});
  bool refused = false;
  try {
    const std::string text = "<html/>";
    QNPlaylistFactory::generateWithData(
        std::make_shared<const platform::Data>(text.begin(), text.end()));
  } catch (const platform::Exception& exception) {
    refused = exception.name() == "QNPlaylistFactoryException";
  }
  expect(refused, "the manifest parsers");
}

// Finds the installed service, wherever the tree lies.
void checkService() {
  auto configuration =
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("consumer");
  configuration.useService = true;
  try {
    const auto delegate = std::make_shared<Delegate>();
    platform::URLSession::sessionWithConfiguration(configuration, delegate);
  } catch (const platform::Exception& exception) {
    expect(false, exception.reason().c_str());
  }
}

}  // namespace

int main() {
  checkService();
  checkPlatform();
  checkRegistry();
  checkEngine();
  if (failures == 0) std::printf("all good\n");
  return failures == 0 ? 0 : 1;
}
