// Any bytes as a properties file: refused, or understood; then every accessor works, and what was
// there is there after a change was written and read again.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <unistd.h>

#include "engine/QNMovieDownloadProperties.h"
#include "platform/FileManager.h"
#include "platform/host/QNLog.h"

namespace {

// The one file, in memory.
class MemoryFiles : public platform::FileManager {
 public:
  MemoryFiles() {
    QNSetLogTap([](int) { return false; }, [](int, const std::string&) {});
    setDefaultManager(this);
  }

  bool fileExistsAtPath(const std::string&) override { return true; }
  platform::DataPtr contentsAtPath(const std::string&, int64_t, platform::ErrorPtr*) override {
    return std::make_shared<const platform::Data>(content.begin(), content.end());
  }
  platform::ErrorPtr writeAtomically(const std::string&, const void* bytes, size_t size,
                                     unsigned) override {
    content.assign(static_cast<const char*>(bytes), size);
    return nullptr;
  }

  std::string content;
};

void demand(bool holds, const char* what, const std::string& content) {
  if (holds) return;
  std::fprintf(stderr, "%s:\n%s\n", what, content.c_str());
  std::abort();
}

std::shared_ptr<QNMutableMovieDownloadProperties> read() {
  return QNMutableMovieDownloadProperties::propertiesWithLocalPath("/downloads/x",
                                                                   QNMoviePropertiesFileName);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFiles files;
  files.content.assign(reinterpret_cast<const char*>(data), size);
  auto properties = read();
  if (!properties) return 0;
  const auto url = properties->sourceURL();
  const auto identifiers = properties->downloadedQualityIdentifiers();
  const auto local = properties->localURL();
  (void)properties->title();
  properties->setNumberOfDownloadedAudioQualities(7);
  properties.reset();
  const std::string written = files.content;
  properties = read();
  demand(properties != nullptr, "what was written cannot be read", written);
  demand(properties->sourceURL() == url && properties->localURL() == local &&
             properties->downloadedQualityIdentifiers() == identifiers,
         "members were lost", written);
  demand(properties->numberOfDownloadedAudioQualities() == 7, "the change was lost", written);
  properties->setNumberOfDownloadedAudioQualities(7);
  demand(files.content == written, "written twice, not the same", written);
  return 0;
}
