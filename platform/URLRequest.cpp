#include "platform/URLRequest.h"

#include <algorithm>

namespace platform {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalFolded(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lower(x) == lower(y); });
}

// RFC 9110 section 5.6.2.
bool isToken(std::string_view text) {
  const auto isTokenChar = [](char c) {
    return (c >= '0' && c <= '9') || (lower(c) >= 'a' && lower(c) <= 'z') ||
           (c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos);
  };
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenChar);
}

}  // namespace

void HTTPHeaders::set(std::string name, std::string value) {
  for (auto& field : fields_) {
    if (!equalFolded(field.first, name)) continue;
    field.second = std::move(value);
    return;
  }
  fields_.emplace_back(std::move(name), std::move(value));
}

void HTTPHeaders::remove(std::string_view name) {
  std::erase_if(fields_, [name](const Field& field) { return equalFolded(field.first, name); });
}

std::optional<std::string> HTTPHeaders::get(std::string_view name) const {
  const std::string* const value = find(name);
  return value ? std::optional(*value) : std::nullopt;
}

const std::string* HTTPHeaders::find(std::string_view name) const {
  for (const auto& [fieldName, value] : fields_) {
    if (equalFolded(fieldName, name)) return &value;
  }
  return nullptr;
}

std::shared_ptr<URLRequest> URLRequest::requestWithURL(URLPtr url) {
  return std::make_shared<URLRequest>(std::move(url));
}

URLRequest::URLRequest(URLPtr url) : url_(std::move(url)) {}

void URLRequest::setHTTPMethod(std::string method) {
  if (isToken(method)) method_ = std::move(method);
}

void URLRequest::setValueForHTTPHeaderField(const std::string& value, const std::string& name) {
  const std::string_view splitters("\r\n\0", 3);
  if (!isToken(name) || value.find_first_of(splitters) != std::string::npos) return;
  headers_.set(name, value);
}

}  // namespace platform
