#pragma once

#include <cstdint>
#include <string>

#include "platform/Error.h"

namespace platform {

// How one HTTP exchange ended.
struct HttpOutcome {
  int64_t code = 0;        // of NSURLErrorDomain; 0: the response is whole
  bool retriable = false;  // the connection's fault, not the request's
  std::string detail;      // for a person

  bool succeeded() const { return code == 0; }
};

// Of a CURLcode; `message` is libcurl's own, may be empty.
HttpOutcome outcomeOfCurl(int curlCode, const std::string& message);

// An error of NSURLErrorDomain: "<what the code means>: <detail> (<url>)".
ErrorPtr urlError(int64_t code, const std::string& detail, const std::string& url,
                  Dictionary userInfo = {});

}  // namespace platform
