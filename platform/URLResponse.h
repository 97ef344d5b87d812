#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"
#include "platform/URL.h"
#include "platform/URLRequest.h"

namespace platform {

class QN_EXPORT URLResponse {
 public:
  URLResponse(URLPtr url, int64_t expectedContentLength);
  virtual ~URLResponse();

  const URLPtr& url() const { return url_; }  // after redirects
  // Bytes of the body as announced, -1 unknown.
  int64_t expectedContentLength() const { return expectedContentLength_; }

 private:
  URLPtr url_;
  int64_t expectedContentLength_;
};

class QN_EXPORT HTTPURLResponse : public URLResponse {
 public:
  HTTPURLResponse(URLPtr url, int statusCode, HTTPHeaders headers, int64_t expectedContentLength);
  ~HTTPURLResponse() override;

  int statusCode() const { return statusCode_; }
  const HTTPHeaders& allHeaderFields() const { return headers_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return headers_.get(name);
  }

  // The standard reason phrase in lower case words ("not found"), nullopt for a code that has none.
  static std::optional<std::string> localizedStringForStatusCode(int statusCode);

 private:
  int statusCode_;
  HTTPHeaders headers_;
};

using URLResponsePtr = std::shared_ptr<const URLResponse>;

}  // namespace platform
