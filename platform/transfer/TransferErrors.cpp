#include "platform/transfer/TransferErrors.h"

#include <utility>

#include <curl/curl.h>

namespace platform {
namespace {

const char* meaning(int64_t code) {
  switch (code) {
    case URLErrorCancelled:
      return "The transfer was cancelled";
    case URLErrorBadURL:
      return "The URL is not usable";
    case URLErrorTimedOut:
      return "The server did not answer in time";
    case URLErrorUnsupportedURL:
      return "Only http and https are transferred";
    case URLErrorCannotFindHost:
      return "The host was not found";
    case URLErrorCannotConnectToHost:
      return "The host refused the connection";
    case URLErrorNetworkConnectionLost:
      return "The connection was lost";
    case URLErrorHTTPTooManyRedirects:
      return "Too many redirects";
    case URLErrorRedirectToNonExistentLocation:
      return "A redirect leads nowhere";
    case URLErrorBadServerResponse:
      return "The server's answer is not usable";
    case URLErrorCannotDecodeContentData:
      return "The content cannot be decoded";
    case URLErrorCannotWriteToFile:
      return "The file cannot be written";
    case URLErrorDataLengthExceedsMaximum:
      return "The content is larger than allowed";
    case URLErrorSecureConnectionFailed:
      return "No secure connection could be made";
    case URLErrorServerCertificateHasBadDate:
      return "The server's certificate is not valid now";
    case URLErrorServerCertificateUntrusted:
      return "The server's certificate is not trusted";
    default:
      return "The transfer failed";
  }
}

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// A handshake that broke off is the connection's fault; one that was refused is not.
HttpOutcome handshakeFailed(const std::string& message) {
  const bool brokeOff = contains(message, "SYSCALL") || contains(message, "unexpected eof") ||
                        contains(message, "reset by peer");
  return {URLErrorSecureConnectionFailed, brokeOff, message};
}

HttpOutcome certificateRefused(const std::string& message) {
  const bool date = contains(message, "expired") || contains(message, "not yet valid");
  return {date ? URLErrorServerCertificateHasBadDate : URLErrorServerCertificateUntrusted, false,
          message};
}

}  // namespace

HttpOutcome outcomeOfCurl(int curlCode, const std::string& message) {
  std::string detail = message;
  if (detail.empty()) detail = curl_easy_strerror(static_cast<CURLcode>(curlCode));
  switch (curlCode) {
    case CURLE_OK:
      return {};
    case CURLE_URL_MALFORMAT:
      return {URLErrorBadURL, false, detail};
    case CURLE_UNSUPPORTED_PROTOCOL:  // an answer that is no HTTP/1 is reported so, too
    case CURLE_WEIRD_SERVER_REPLY:
      return {URLErrorBadServerResponse, false, detail};
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return {URLErrorCannotFindHost, true, detail};
    case CURLE_COULDNT_CONNECT:
      return {URLErrorCannotConnectToHost, true, detail};
    case CURLE_OPERATION_TIMEDOUT:
      return {URLErrorTimedOut, true, detail};
    case CURLE_SSL_CONNECT_ERROR:
      return handshakeFailed(detail);
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
      return certificateRefused(detail);
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
      return {URLErrorSecureConnectionFailed, false, detail};
    case CURLE_BAD_CONTENT_ENCODING:
      return {URLErrorCannotDecodeContentData, false, detail};
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return {URLErrorNetworkConnectionLost, true, detail};
    default:
      return {URLErrorUnknown, false, detail};
  }
}

ErrorPtr urlError(int64_t code, const std::string& detail, const std::string& url,
                  Dictionary userInfo) {
  std::string text = meaning(code);
  if (!detail.empty()) text += ": " + detail;
  if (!url.empty()) text += " (" + url + ")";
  userInfo[NSLocalizedDescriptionKey] = std::move(text);
  if (!url.empty()) userInfo[NSURLErrorFailingURLStringErrorKey] = url;
  return Error::errorWithDomain(NSURLErrorDomain, code, std::move(userInfo));
}

}  // namespace platform
