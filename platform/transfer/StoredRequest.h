#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "platform/URLRequest.h"

namespace platform {

// A task's request as it is remembered: the application's object while that is in this process and
// has to be there anyway, else its bytes, in one piece.
class StoredRequest {
 public:
  StoredRequest() = default;
  StoredRequest(URLRequestPtr request) : value_(std::move(request)) {}

  // Never null once one was set.
  URLRequestPtr get() const;
  // From now on without the object.
  void pack();

 private:
  std::variant<URLRequestPtr, std::string> value_;
};

// Header fields as "name NUL value NUL", in order; neither may hold a NUL.
std::string packHeaders(const HTTPHeaders& headers);
HTTPHeaders unpackHeaders(std::string_view packed);

}  // namespace platform
