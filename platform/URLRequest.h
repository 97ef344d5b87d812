#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Export.h"
#include "platform/URL.h"

namespace platform {

// Header fields in the order in which they were first set; names compare without regard to case
// (RFC 9110).
class QN_EXPORT HTTPHeaders {
 public:
  using Field = std::pair<std::string, std::string>;

  // Replaces the value of a field of the same name, else appends.
  void set(std::string name, std::string value);
  void remove(std::string_view name);
  std::optional<std::string> get(std::string_view name) const;
  // The same without a copy; null when there is none. Until the next change.
  const std::string* find(std::string_view name) const;
  const std::vector<Field>& fields() const& { return fields_; }
  std::vector<Field> fields() && { return std::move(fields_); }  // for loops over a temporary
  bool empty() const { return fields_.empty(); }
  bool operator==(const HTTPHeaders&) const = default;

 private:
  std::vector<Field> fields_;
};

// A mutable HTTP request. A null URL is legal here: the task that is made from it fails
// asynchronously.
class QN_EXPORT URLRequest {
 public:
  static std::shared_ptr<URLRequest> requestWithURL(URLPtr url);

  explicit URLRequest(URLPtr url);

  const URLPtr& url() const { return url_; }
  void setURL(URLPtr url) { url_ = std::move(url); }
  const std::string& HTTPMethod() const { return method_; }  // "GET" unless set
  void setHTTPMethod(std::string method);                    // what is no RFC 9110 token is ignored
  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return headers_.get(name);
  }
  // Names that are no RFC 9110 tokens and values with CR, LF or NUL are ignored: no request can be
  // split by a header.
  void setValueForHTTPHeaderField(const std::string& value, const std::string& name);
  const HTTPHeaders& allHTTPHeaderFields() const { return headers_; }

 private:
  URLPtr url_;
  std::string method_ = "GET";
  HTTPHeaders headers_;
};

using URLRequestPtr = std::shared_ptr<const URLRequest>;

}  // namespace platform
