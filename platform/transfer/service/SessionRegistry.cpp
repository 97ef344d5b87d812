#include "platform/transfer/service/SessionRegistry.h"

#include <cerrno>
#include <utility>

#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/PrivateDirectory.h"
#include "platform/transfer/TransferOptions.h"
#include "platform/transfer/service/Wire.h"

namespace platform::service {
namespace {

constexpr const char* kExtension = ".session";
constexpr uint32_t kFormat = 2;
constexpr int64_t kMaximumSize = 64 << 10;

std::optional<SessionRecord> decode(const Data& bytes) {
  WireReader in({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  if (in.u32() != kFormat) return std::nullopt;
  SessionRecord record;
  record.identifier = in.text();
  record.stateDirectory = in.text();
  record.partialDirectory = in.text();
  record.wantsToRun = in.boolean();
  record.launches = in.u32();
  if (!in.atEnd()) return std::nullopt;
  return record;
}

}  // namespace

URLSessionConfiguration SessionRecord::configuration() const {
  auto result = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
  result.stateDirectory = stateDirectory;
  result.partialDirectory = partialDirectory;
  return result;
}

SessionRegistry::SessionRegistry(std::string directory) : directory_(std::move(directory)) {
  ErrorPtr error;
  openPrivateDirectory(directory_, PrivateDirectoryMode::Tightened, error);
  if (error) throw Exception("NSURLSessionException", error->localizedDescription());
}

std::string SessionRegistry::keyOf(const URLSessionConfiguration& configuration) {
  return TransferLocation::fromConfiguration(configuration).storeDirectory;
}

std::string SessionRegistry::pathOf(const std::string& key) const {
  return FileManager::pathByAppending(directory_, transferHash(key) + kExtension);
}

std::optional<SessionRecord> SessionRegistry::read(const std::string& path) const {
  auto& files = FileManager::defaultManager();
  ErrorPtr error;
  const DataPtr bytes = files.contentsAtPath(path, kMaximumSize, &error);
  if (!bytes) {
    // Only what was read can be judged.
    if (error && error->code() != ENOENT) logError("Error: " + error->localizedDescription());
    return std::nullopt;
  }
  auto record = decode(*bytes);
  if (!record) {
    logError("Error: " + path + " is damaged and was removed");
    files.removeItem(path);
  }
  return record;
}

std::vector<SessionRecord> SessionRegistry::load() const {
  std::vector<SessionRecord> records;
  for (const auto& entry : FileManager::defaultManager()
                               .contentsOfDirectory(directory_)
                               .value_or(std::vector<FileManager::Entry>{})) {
    if (!entry.isRegular || !entry.name.ends_with(kExtension)) continue;
    if (auto record = read(FileManager::pathByAppending(directory_, entry.name)))
      records.push_back(std::move(*record));
  }
  return records;
}

std::optional<SessionRecord> SessionRegistry::find(const std::string& key) const {
  return read(pathOf(key));
}

void SessionRegistry::save(const SessionRecord& record) const {
  WireWriter out;
  out.u32(kFormat);
  out.text(record.identifier);
  out.text(record.stateDirectory);
  out.text(record.partialDirectory);
  out.boolean(record.wantsToRun);
  out.u32(record.launches);
  const std::string path = pathOf(keyOf(record.configuration()));
  if (const ErrorPtr error = FileManager::defaultManager().writeAtomically(
          path, out.bytes().data(), out.bytes().size(), 0600))
    logError("Error: " + error->localizedDescription());
}

void SessionRegistry::remove(const std::string& key) const {
  const std::string path = pathOf(key);
  auto& files = FileManager::defaultManager();
  if (files.fileExistsAtPath(path)) files.removeItem(path);
}

}  // namespace platform::service
