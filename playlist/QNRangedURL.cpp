#include "playlist/QNRangedURL.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

QNRangedURL::BaseURL shared(const std::optional<std::string>& baseURL) {
  return baseURL ? std::make_shared<const std::string>(*baseURL) : nullptr;
}

constexpr uint64_t kEndOfResource = std::numeric_limits<uint64_t>::max();

uint64_t endOf(uint64_t offset, uint64_t length) {
  return length == 0 ? kEndOfResource : offset + length;
}

}  // namespace

std::shared_ptr<QNRangedURL> QNRangedURL::rangedURLWithOffset(uint64_t offset, uint64_t length,
                                                              std::string referenceURL,
                                                              BaseURL baseURL) {
  return std::make_shared<QNRangedURL>(offset, length, std::move(referenceURL), std::move(baseURL));
}

std::shared_ptr<QNRangedURL> QNRangedURL::rangedURLWithOffset(
    uint64_t offset, uint64_t length, std::string referenceURL,
    const std::optional<std::string>& baseURL) {
  return rangedURLWithOffset(offset, length, std::move(referenceURL), shared(baseURL));
}

std::shared_ptr<QNRangedURL> QNRangedURL::rangedURLWithReferenceURL(std::string referenceURL,
                                                                    BaseURL baseURL) {
  return rangedURLWithOffset(0, 0, std::move(referenceURL), std::move(baseURL));
}

std::shared_ptr<QNRangedURL> QNRangedURL::rangedURLWithReferenceURL(
    std::string referenceURL, const std::optional<std::string>& baseURL) {
  return rangedURLWithOffset(0, 0, std::move(referenceURL), shared(baseURL));
}

std::optional<std::string> QNRangedURL::baseURL() const {
  if (!baseURL_) return std::nullopt;
  return *baseURL_;
}

void QNRangedURL::setBaseURL(const std::optional<std::string>& baseURL) {
  baseURL_ = shared(baseURL);
}

void QNRangedURL::cover(uint64_t offset, uint64_t length) {
  const uint64_t end = std::max(endOf(offset_, length_), endOf(offset, length));
  offset_ = std::min(offset_, offset);
  length_ = end == kEndOfResource ? 0 : end - offset_;
}

std::optional<std::string> QNRangedURL::rangeHeader() const {
  if (!hasRange()) return std::nullopt;
  std::string value = "bytes=" + std::to_string(offset_) + "-";
  if (length_ != 0) value += std::to_string(length_);
  return value;
}

platform::URLPtr QNRangedURL::resolveURL() const {
  if (!baseURL_) return platform::URL::URLWithString(referenceURL_);
  // A base that is no URL leaves nothing to resolve against; an absolute reference stands without
  // it.
  // The resources of a list share it, so it is read once for many.
  thread_local struct {
    BaseURL text;
    platform::URLPtr url;
  } base;
  if (base.text != baseURL_) base = {baseURL_, platform::URL::URLWithString(*baseURL_)};
  return platform::URL::URLWithString(referenceURL_, base.url);
}

std::shared_ptr<platform::URLRequest> QNRangedURL::prepareRequest() const {
  auto request = platform::URLRequest::requestWithURL(resolveURL());
  if (const auto range = rangeHeader()) request->setValueForHTTPHeaderField(*range, "Range");
  return request;
}

std::shared_ptr<platform::URLRequest> QNRangedURL::prepareHeadRequest() const {
  auto request = platform::URLRequest::requestWithURL(resolveURL());
  request->setHTTPMethod("HEAD");
  request->setValueForHTTPHeaderField("identity", "Accept-Encoding");
  return request;
}
