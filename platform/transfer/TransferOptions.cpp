#include "platform/transfer/TransferOptions.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

#include <sys/stat.h>

#include "platform/FileManager.h"

namespace platform {
namespace {

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value ? value : "";
}

template <class Number>
void readNumber(const char* name, Number minimum, Number scale, Number& target) {
  const std::string text = environment(name);
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return;
  if (value < minimum || value > std::numeric_limits<Number>::max() / scale) return;
  target = value * scale;
}

TransferOptions readDefaults() {
  TransferOptions options;
  readNumber<int>("QN_MAX_CONNECTIONS_PER_HOST", 1, 1, options.connectionsPerHost);
  readNumber<int>("QN_MAX_TRANSFERS", 1, 1, options.transfers);
  readNumber<int64_t>("QN_MAX_BYTES_PER_SECOND", 0, 1, options.bytesPerSecond);
  readNumber<int64_t>("QN_CONNECT_TIMEOUT", 1, 1000, options.connectTimeoutMs);
  readNumber<int64_t>("QN_STALL_TIMEOUT", 1, 1000, options.stallTimeoutMs);
  readNumber<int64_t>("QN_RETRY_BOUND", 0, 1000, options.retryBoundMs);
  readNumber<int64_t>("QN_DISK_FULL_BOUND", 0, 1000, options.diskFullBoundMs);
  options.caFile = environment("QN_CA_FILE");
  return options;
}

void setMilliseconds(double seconds, bool isSet, int64_t& target) {
  if (isSet && std::isfinite(seconds)) target = static_cast<int64_t>(std::min(seconds, 1e12) * 1e3);
}

// The device of the nearest directory above that exists.
std::optional<dev_t> deviceOf(std::string path) {
  for (;;) {
    struct stat status {};
    if (stat(path.empty() ? "/" : path.c_str(), &status) == 0) return status.st_dev;
    const size_t slash = path.rfind('/');
    if (path.empty() || slash == std::string::npos) return std::nullopt;
    path.resize(slash);
  }
}

}  // namespace

const TransferOptions& TransferOptions::defaults() {
  static const auto* const options = new TransferOptions(readDefaults());  // outlives every thread
  return *options;
}

TransferOptions TransferOptions::fromConfiguration(const URLSessionConfiguration& configuration) {
  TransferOptions options = defaults();
  if (configuration.maximumConnectionsPerHost > 0) {
    options.connectionsPerHost = configuration.maximumConnectionsPerHost;
  }
  if (configuration.maximumTransfers > 0) options.transfers = configuration.maximumTransfers;
  if (configuration.maximumBytesPerSecond >= 0) {
    options.bytesPerSecond = configuration.maximumBytesPerSecond;
  }
  const auto& c = configuration;
  setMilliseconds(c.connectTimeoutSeconds, c.connectTimeoutSeconds > 0, options.connectTimeoutMs);
  setMilliseconds(c.stallTimeoutSeconds, c.stallTimeoutSeconds > 0, options.stallTimeoutMs);
  setMilliseconds(c.retryBoundSeconds, c.retryBoundSeconds >= 0, options.retryBoundMs);
  setMilliseconds(c.diskFullBoundSeconds, c.diskFullBoundSeconds >= 0, options.diskFullBoundMs);
  if (!configuration.caFile.empty()) options.caFile = configuration.caFile;
  options.allowsCellularAccess = configuration.allowsCellularAccess;
  options.discretionary = configuration.discretionary;
  options.sendsLaunchEvents = configuration.sessionSendsLaunchEvents;
  options.launchCommand = configuration.launchCommand;
  return options;
}

std::string defaultStateDirectory() {
  if (auto own = environment("QN_STATE_DIR"); !own.empty()) return own;
  // A relative $XDG_STATE_HOME is to be ignored (XDG base directories).
  if (auto state = environment("XDG_STATE_HOME"); state.starts_with('/')) {
    return FileManager::pathByAppending(state, "QNMovieDownloader");
  }
  return FileManager::pathByAppending(FileManager::homeDirectory(),
                                      ".local/state/QNMovieDownloader");
}

std::string stateRoot(const URLSessionConfiguration& configuration) {
  return configuration.stateDirectory.empty() ? defaultStateDirectory()
                                              : configuration.stateDirectory;
}

TransferLocation TransferLocation::fromConfiguration(const URLSessionConfiguration& configuration) {
  TransferLocation location;
  location.identifier = configuration.identifier;
  const std::string hash = transferHash(configuration.identifier);
  location.storeDirectory = FileManager::pathByAppending(stateRoot(configuration), hash);
  location.partialDirectory = FileManager::pathByAppending(location.storeDirectory, "partial");
  if (configuration.partialDirectory.empty()) return location;
  const auto wanted = deviceOf(configuration.partialDirectory);
  if (wanted && wanted != deviceOf(location.storeDirectory)) {
    location.partialDirectory =
        FileManager::pathByAppending(configuration.partialDirectory, ".qn-partial-" + hash);
  }
  return location;
}

std::string transferHash(const std::string& text) {
  uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3;
  }
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
  return digits;
}

}  // namespace platform
