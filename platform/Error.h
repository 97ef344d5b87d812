#pragma once

#include <any>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/Export.h"

namespace platform {

// A dictionary of anything: the user info of errors and exceptions. The value types of our own keys
// are documented where the keys are defined.
using Dictionary = std::map<std::string, std::any>;

// Error domains and user-info keys; the texts are part of the interface.
QN_EXPORT extern const char* const NSURLErrorDomain;           // "NSURLErrorDomain"
QN_EXPORT extern const char* const NSPOSIXErrorDomain;         // "NSPOSIXErrorDomain", code = errno
QN_EXPORT extern const char* const NSLocalizedDescriptionKey;  // "NSLocalizedDescription", string
QN_EXPORT extern const char* const
    NSLocalizedFailureReasonErrorKey;  // "NSLocalizedFailureReason", string
QN_EXPORT extern const char* const
    NSLocalizedRecoverySuggestionErrorKey;              // "NSLocalizedRecoverySuggestion", string
QN_EXPORT extern const char* const NSFilePathErrorKey;  // "NSFilePath", string
QN_EXPORT extern const char* const
    NSURLErrorFailingURLStringErrorKey;  // "NSErrorFailingURLStringKey", string
// Resume data of a failed or cancelled transfer: a std::shared_ptr<const Data>. Opaque; good for
// one new task.
QN_EXPORT extern const char* const
    NSURLSessionDownloadTaskResumeData;  // "NSURLSessionDownloadTaskResumeData"
// The HTTP status (int64_t) that ended a transfer although partial data can be continued from.
QN_EXPORT extern const char* const QNURLErrorHTTPStatusKey;  // "QNURLErrorHTTPStatus"

// In the user info of the exception that a session throws which another process holds: who (string,
// for a person).
inline constexpr const char* QNURLSessionHolderKey = "QNURLSessionHolder";

// Codes of NSURLErrorDomain.
enum URLErrorCode : int64_t {
  URLErrorUnknown = -1,
  URLErrorCancelled = -999,
  URLErrorBadURL = -1000,
  URLErrorTimedOut = -1001,
  URLErrorUnsupportedURL = -1002,
  URLErrorCannotFindHost = -1003,
  URLErrorCannotConnectToHost = -1004,
  URLErrorNetworkConnectionLost = -1005,
  URLErrorHTTPTooManyRedirects = -1007,
  URLErrorResourceUnavailable = -1008,
  URLErrorNotConnectedToInternet = -1009,
  URLErrorRedirectToNonExistentLocation = -1010,
  URLErrorBadServerResponse = -1011,
  URLErrorCannotDecodeContentData = -1016,
  URLErrorCannotWriteToFile = -3003,
  URLErrorDataLengthExceedsMaximum = -1103,
  URLErrorSecureConnectionFailed = -1200,
  URLErrorServerCertificateHasBadDate = -1201,
  URLErrorServerCertificateUntrusted = -1202,
};

// "The world failed": a domain, a code within it and what else is known. Immutable, so it may be
// read from any thread.
class QN_EXPORT Error {
 public:
  static std::shared_ptr<const Error> errorWithDomain(std::string domain, int64_t code,
                                                      Dictionary userInfo = {});
  // `errnum` is an errno; the description reads "<what> <path>: <system text>".
  static std::shared_ptr<const Error> errorWithErrno(int errnum, const std::string& what,
                                                     const std::string& path);

  Error(std::string domain, int64_t code, Dictionary userInfo);

  const std::string& domain() const { return domain_; }
  int64_t code() const { return code_; }
  const Dictionary& userInfo() const { return userInfo_; }

  // The string under `key`, nullopt when absent or of another type.
  std::optional<std::string> stringForKey(const std::string& key) const;
  // The description key's text, else "<domain> error <code>".
  std::string localizedDescription() const;

 private:
  std::string domain_;
  int64_t code_;
  Dictionary userInfo_;
};

using ErrorPtr = std::shared_ptr<const Error>;

}  // namespace platform
