#include "platform/transfer/service/SessionRegistry.h"

#include <utility>

#include <sys/stat.h>

#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/transfer/TransferOptions.h"
#include "platform/transfer/service/ServiceMessages.h"
#include "platform/transfer/service/Wire.h"

namespace platform::service {
namespace {

constexpr const char* kExtension = ".session";
constexpr uint32_t kFormat = 1;

std::optional<SessionRecord> decode(const Data& bytes) {
  WireReader in({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  if (in.u32() != kFormat) return std::nullopt;
  const std::string opening = in.text();
  SessionRecord record;
  record.wantsToRun = in.boolean();
  record.launches = in.u32();
  if (!in.atEnd() || opening.size() < 4) return std::nullopt;
  auto message = decodeMessage(std::string_view(opening).substr(4));
  auto* open = message ? std::get_if<OpenMessage>(&*message) : nullptr;
  if (!open) return std::nullopt;
  record.configuration = std::move(open->configuration);
  return record;
}

}  // namespace

SessionRegistry::SessionRegistry(std::string directory) : directory_(std::move(directory)) {
  FileManager::defaultManager().createDirectoryWithIntermediates(directory_);
  ::chmod(directory_.c_str(), 0700);
}

std::string SessionRegistry::keyOf(const URLSessionConfiguration& configuration) {
  return TransferLocation::fromConfiguration(configuration).storeDirectory;
}

std::string SessionRegistry::pathOf(const std::string& key) const {
  return FileManager::pathByAppending(directory_, transferHash(key) + kExtension);
}

std::vector<SessionRecord> SessionRegistry::load() const {
  auto& files = FileManager::defaultManager();
  std::vector<SessionRecord> records;
  for (const auto& entry :
       files.contentsOfDirectory(directory_).value_or(std::vector<FileManager::Entry>{})) {
    if (!entry.isRegular || !entry.name.ends_with(kExtension)) continue;
    const std::string path = FileManager::pathByAppending(directory_, entry.name);
    const DataPtr bytes = files.contentsAtPath(path, kMaximumFrame);
    auto record = bytes ? decode(*bytes) : std::nullopt;
    if (record) {
      records.push_back(std::move(*record));
    } else {
      logError("Error: " + path + " is damaged and was removed");
      files.removeItem(path);
    }
  }
  return records;
}

void SessionRegistry::save(const SessionRecord& record) const {
  WireWriter out;
  out.u32(kFormat);
  out.text(
      encodeFrame(OpenMessage{.number = 0, .configuration = record.configuration, .again = false}));
  out.boolean(record.wantsToRun);
  out.u32(record.launches);
  const std::string path = pathOf(keyOf(record.configuration));
  if (const ErrorPtr error = FileManager::defaultManager().writeAtomically(path, out.bytes().data(),
                                                                           out.bytes().size()))
    logError("Error: " + error->localizedDescription());
  ::chmod(path.c_str(), 0600);
}

void SessionRegistry::remove(const std::string& key) const {
  const std::string path = pathOf(key);
  auto& files = FileManager::defaultManager();
  if (files.fileExistsAtPath(path)) files.removeItem(path);
}

}  // namespace platform::service
