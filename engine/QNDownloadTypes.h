#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Export.h"

// The vocabulary of the download engine: sizes, progress, status, headers, errors.

// A byte count; `estimated` tells one that was derived (from bitrate and duration, or from an
// average) from one that the server reported or the manifest states.
struct QNDownloadSize {
  int64_t value = -1;  // -1: unknown
  bool estimated = true;
};

// A fraction, nominally 0.0 to 1.0 and never clamped; `estimated` is that of the size it was
// computed against.
struct QNDownloadProgress {
  float value = -1.0F;  // -1.0: unknown
  bool estimated = true;
};

inline constexpr int64_t QNDownloadSizeUnknownValue = -1;
inline constexpr QNDownloadSize QNDownloadSizeUnknown{QNDownloadSizeUnknownValue, true};
inline constexpr QNDownloadSize QNDownloadSizeZero{0, false};
inline constexpr float QNDownloadProgressUnknownValue = -1.0F;
inline constexpr QNDownloadProgress QNDownloadProgressUnknown{QNDownloadProgressUnknownValue, true};
inline constexpr QNDownloadProgress QNDownloadProgressZero{0.0F, false};

// Pure functions.
QN_EXPORT QNDownloadSize QNMakeDownloadSize(int64_t value, bool estimated);
QN_EXPORT bool QNDownloadSizeIsUnknown(QNDownloadSize size);  // the flag is not looked at
QN_EXPORT bool QNDownloadSizeIsEqual(QNDownloadSize a, QNDownloadSize b);
QN_EXPORT QNDownloadProgress QNMakeDownloadProgress(float value, bool estimated);
QN_EXPORT bool QNDownloadProgressIsUnknown(QNDownloadProgress progress);
// Unknown unless something is expected. Above 1.0 when more came than was expected.
QN_EXPORT QNDownloadProgress QNDownloadProgressCompute(int64_t downloadedBytes,
                                                       QNDownloadSize expected);

// Shared by resources (own state), qualities and sets (derived from counters). The numbers are
// stored in task descriptions.
enum QNDownloadStatus : uint64_t {
  QNDownloadStatusIdle = 0,     // no task attached; no active member
  QNDownloadStatusPaused = 1,   // a suspended task; active members, none running
  QNDownloadStatusRunning = 2,  // a resumed task; at least one member running
};

// Extra HTTP headers, name to value. Names compare without regard to (ASCII) case.
struct QN_EXPORT QNHeaderNameLess {
  bool operator()(const std::string& a, const std::string& b) const;
};
using QNHeaders = std::map<std::string, std::string, QNHeaderNameLess>;
// Shared by every resource of a quality; null: none.
using QNHeadersPtr = std::shared_ptr<const QNHeaders>;
// Servers, each "scheme://host" or "scheme://host:port".
using QNHeaderOrigins = std::vector<std::string>;

// A response whose status is neither 200 nor 206: the code is the status.
//   "QNStatusMessage"   std::string, the platform's text for the status or "Unknown Error"
inline constexpr const char* QNDownloadHTTPErrorDomain = "QNDownloadHTTPErrorDomain";
// Something completed with failures.
//   QNQualityDownloadError   "QNQuality"        std::shared_ptr<QNQuality>
//                            "QNResourceErrors" QNResourceErrors
//   QNSetDownloadError       "QNMovie"          std::shared_ptr<QNMovie>
//                            "QNQualityErrors"  QNQualityErrors
inline constexpr const char* QNDownloadErrorDomain = "QNDownloadErrorDomain";
inline constexpr int64_t QNQualityDownloadError = -1001;
inline constexpr int64_t QNSetDownloadError = -1002;

inline constexpr const char* QNStatusMessageKey = "QNStatusMessage";
inline constexpr const char* QNQualityKey = "QNQuality";
inline constexpr const char* QNResourceErrorsKey = "QNResourceErrors";
inline constexpr const char* QNMovieKey = "QNMovie";
inline constexpr const char* QNQualityErrorsKey = "QNQualityErrors";
// platform::ErrorPtr, where a fetched manifest could not be stored.
inline constexpr const char* QNUnderlyingErrorKey = "NSUnderlyingError";

// std::string for a person, in the user info of the exception that a start or a removal throws
// while another downloader holds the download: "process 4711", "another
// downloader of this process", "another process".
inline constexpr const char* QNDownloadHolderKey = "QNDownloadHolder";

namespace platform {
class Error;
}
// Resource index, respectively quality identifier, to what happened there.
using QNResourceErrors = std::map<uint64_t, std::shared_ptr<const platform::Error>>;
using QNQualityErrors = std::map<std::string, std::shared_ptr<const platform::Error>>;

// Misuse of a download set, respectively of a downloader; the reasons stand at their methods.
inline constexpr const char* QNMovieDownloadSetException = "QNMovieDownloadSetException";
inline constexpr const char* QNMovieDownloaderException = "QNMovieDownloaderException";
