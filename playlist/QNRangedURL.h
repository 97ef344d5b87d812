#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Export.h"
#include "platform/URL.h"
#include "platform/URLRequest.h"

// One downloadable resource: a reference as the manifest writes it, the base URL that it resolves
// against and a byte range within it. A plain value held by pointer, without equality of its own;
// not thread-safe while it is changed. The base URL is shared between the resources of a list.
class QN_EXPORT QNRangedURL {
 public:
  using BaseURL = std::shared_ptr<const std::string>;  // null: none

  static std::shared_ptr<QNRangedURL> rangedURLWithOffset(uint64_t offset, uint64_t length,
                                                          std::string referenceURL,
                                                          BaseURL baseURL);
  static std::shared_ptr<QNRangedURL> rangedURLWithOffset(
      uint64_t offset, uint64_t length, std::string referenceURL,
      const std::optional<std::string>& baseURL);
  // Offset and length 0: a resource without range.
  static std::shared_ptr<QNRangedURL> rangedURLWithReferenceURL(std::string referenceURL,
                                                                BaseURL baseURL);
  static std::shared_ptr<QNRangedURL> rangedURLWithReferenceURL(
      std::string referenceURL, const std::optional<std::string>& baseURL);

  QNRangedURL(uint64_t offset, uint64_t length, std::string referenceURL, BaseURL baseURL)
      : offset_(offset),
        length_(length),
        referenceURL_(std::move(referenceURL)),
        baseURL_(std::move(baseURL)) {}

  // First byte of the range.
  uint64_t offset() const { return offset_; }
  void setOffset(uint64_t offset) { offset_ = offset; }
  // What is written after the hyphen of the byte range, verbatim; 0 is an open-ended range. The
  // lists of this library store a byte count here (QNInexactRanges.h tells what follows from that).
  uint64_t length() const { return length_; }
  void setLength(uint64_t length) { length_ = length; }
  const std::string& referenceURL() const { return referenceURL_; }
  void setReferenceURL(std::string referenceURL) { referenceURL_ = std::move(referenceURL); }
  std::optional<std::string> baseURL() const;
  const BaseURL& sharedBaseURL() const { return baseURL_; }
  void setBaseURL(BaseURL baseURL) { baseURL_ = std::move(baseURL); }
  void setBaseURL(const std::optional<std::string>& baseURL);

  // Grows to the span from the first to the last byte of both ranges, the bytes between them
  // included. A length of 0 reaches to the end.
  void cover(uint64_t offset, uint64_t length);

  bool hasRange() const { return offset_ != 0 || length_ != 0; }
  // The value of the Range header, nullopt without a range: "bytes=<offset>-<length>", or
  // "bytes=<offset>-" when the length is 0. No arithmetic is done on the two.
  std::optional<std::string> rangeHeader() const;

  // The reference resolved against the base (RFC 3986 section 5.2), or the reference alone without
  // a base. Null when one of the texts cannot be a URL.
  platform::URLPtr resolveURL() const;
  // GET, with a Range header when there is a range. The URL of the request is null where
  // `resolveURL` is.
  std::shared_ptr<platform::URLRequest> prepareRequest() const;
  // HEAD with "Accept-Encoding: identity", to learn the size of the whole resource; never a Range
  // header.
  std::shared_ptr<platform::URLRequest> prepareHeadRequest() const;

 private:
  uint64_t offset_;
  uint64_t length_;
  std::string referenceURL_;
  BaseURL baseURL_;
};
