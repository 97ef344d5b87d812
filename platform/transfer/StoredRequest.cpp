#include "platform/transfer/StoredRequest.h"

#include <utility>

namespace platform {

// "method NUL url NUL headers"; a request without URL has an empty one, which no URL is.
void StoredRequest::pack() {
  const auto* const request = std::get_if<URLRequestPtr>(&value_);
  if (!request || !*request) return;
  std::string packed = (*request)->HTTPMethod();
  packed += '\0';
  if ((*request)->url()) packed += (*request)->url()->absoluteString();
  packed += '\0';
  packed += packHeaders((*request)->allHTTPHeaderFields());
  packed.shrink_to_fit();
  value_ = std::move(packed);
}

URLRequestPtr StoredRequest::get() const {
  if (const auto* const request = std::get_if<URLRequestPtr>(&value_)) return *request;
  const std::string_view packed = std::get<std::string>(value_);
  const size_t methodEnd = packed.find('\0');
  const size_t urlEnd = packed.find('\0', methodEnd + 1);
  const std::string_view url = packed.substr(methodEnd + 1, urlEnd - methodEnd - 1);
  auto request = std::make_shared<URLRequest>(url.empty() ? nullptr : URL::URLWithString(url));
  request->setHTTPMethod(std::string(packed.substr(0, methodEnd)));
  const HTTPHeaders headers = unpackHeaders(packed.substr(urlEnd + 1));
  for (const auto& [name, value] : headers.fields())
    request->setValueForHTTPHeaderField(value, name);
  return request;
}

std::string packHeaders(const HTTPHeaders& headers) {
  std::string packed;
  for (const auto& [name, value] : headers.fields()) {
    packed.append(name).push_back('\0');
    packed.append(value).push_back('\0');
  }
  return packed;
}

HTTPHeaders unpackHeaders(std::string_view packed) {
  HTTPHeaders headers;
  size_t at = 0;
  while (at < packed.size()) {
    const size_t nameEnd = packed.find('\0', at);
    if (nameEnd == std::string_view::npos) break;
    const size_t valueEnd = packed.find('\0', nameEnd + 1);
    if (valueEnd == std::string_view::npos) break;
    headers.set(std::string(packed.substr(at, nameEnd - at)),
                std::string(packed.substr(nameEnd + 1, valueEnd - nameEnd - 1)));
    at = valueEnd + 1;
  }
  return headers;
}

}  // namespace platform
