#include "platform/Error.h"

#include <system_error>
#include <utility>

namespace platform {

const char* const NSURLErrorDomain = "NSURLErrorDomain";
const char* const NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
const char* const NSLocalizedDescriptionKey = "NSLocalizedDescription";
const char* const NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
const char* const NSLocalizedRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion";
const char* const NSFilePathErrorKey = "NSFilePath";
const char* const NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";
const char* const NSURLSessionDownloadTaskResumeData = "NSURLSessionDownloadTaskResumeData";
const char* const QNURLErrorHTTPStatusKey = "QNURLErrorHTTPStatus";

std::shared_ptr<const Error> Error::errorWithDomain(std::string domain, int64_t code,
                                                    Dictionary userInfo) {
  return std::make_shared<const Error>(std::move(domain), code, std::move(userInfo));
}

std::shared_ptr<const Error> Error::errorWithErrno(int errnum, const std::string& what,
                                                   const std::string& path) {
  const std::string text = std::generic_category().message(errnum);
  Dictionary userInfo;
  userInfo[NSLocalizedDescriptionKey] = what + " " + path + ": " + text;
  userInfo[NSFilePathErrorKey] = path;
  return errorWithDomain(NSPOSIXErrorDomain, errnum, std::move(userInfo));
}

Error::Error(std::string domain, int64_t code, Dictionary userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

std::optional<std::string> Error::stringForKey(const std::string& key) const {
  const auto found = userInfo_.find(key);
  if (found == userInfo_.end()) return std::nullopt;
  const auto* text = std::any_cast<std::string>(&found->second);
  return text ? std::optional(*text) : std::nullopt;
}

std::string Error::localizedDescription() const {
  if (auto text = stringForKey(NSLocalizedDescriptionKey)) return *std::move(text);
  return domain_ + " error " + std::to_string(code_);
}

}  // namespace platform
