#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/URLSession.h"

namespace platform {

// What a session's configuration and the process-wide defaults come to. The defaults are read from
// the environment once, at the first use: QN_MAX_CONNECTIONS_PER_HOST, QN_MAX_TRANSFERS,
// QN_MAX_BYTES_PER_SECOND, QN_CONNECT_TIMEOUT, QN_STALL_TIMEOUT, QN_RETRY_BOUND, QN_DISK_FULL_BOUND
// (seconds) and QN_CA_FILE. A value that is no number in range is ignored.
struct TransferOptions {
  int connectionsPerHost = 16;
  int transfers = 64;
  int64_t bytesPerSecond = 0;  // 0: no limit
  int64_t connectTimeoutMs = 20'000;
  int64_t stallTimeoutMs = 30'000;  // shorter than the bound: a stalled transfer is tried again
  int64_t retryBoundMs = 60'000;
  int64_t diskFullBoundMs = 600'000;
  std::string caFile;
  bool allowsCellularAccess = true;
  bool discretionary = false;
  bool sendsLaunchEvents = false;
  std::optional<LaunchCommand> launchCommand;

  bool operator==(const TransferOptions&) const = default;

  static const TransferOptions& defaults();
  static TransferOptions fromConfiguration(const URLSessionConfiguration& configuration);
};

// $QN_STATE_DIR, else $XDG_STATE_HOME/QNMovieDownloader, else ~/.local/state/QNMovieDownloader.
std::string defaultStateDirectory();
// The configuration's, else the default.
std::string stateRoot(const URLSessionConfiguration& configuration);

// Where a session's things lie. `storeDirectory` holds the database and the lock,
// `partialDirectory` the files that are being filled.
struct TransferLocation {
  std::string identifier;
  std::string storeDirectory;
  std::string partialDirectory;

  // Looks at the file systems: the partial directory is inside the store's unless the
  // configuration names a directory on another one.
  static TransferLocation fromConfiguration(const URLSessionConfiguration& configuration);
};

// FNV-1a, 64 bits, as 16 hexadecimal digits: names a session's directories.
std::string transferHash(const std::string& text);

}  // namespace platform
