#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "qnc/qncFastString.h"

namespace mpl {

using qnc::FastString;

// A text that many objects of a manifest hold, such as a base URL. Null stands for the empty text.
using SharedText = std::shared_ptr<const FastString>;

inline SharedText shareText(FastString text) {
  return std::make_shared<const FastString>(std::move(text));
}
const FastString& textOf(const SharedText& text);

// A URI reference and the base that it resolves against, which may itself be relative or empty:
// then so is the result.
class ReferenceURI {
 public:
  ReferenceURI() = default;
  ReferenceURI(FastString reference, SharedText base)
      : reference_(std::move(reference)), base_(std::move(base)) {}

  const FastString& reference() const { return reference_; }
  const FastString& base() const { return textOf(base_); }
  const SharedText& sharedBase() const { return base_; }
  // Refers to nothing: neither a reference nor a base.
  bool isEmpty() const { return reference_.empty() && base().empty(); }
  // By RFC 3986 section 5.2.
  FastString resolve() const { return resolve(reference_, base()); }

  static FastString resolve(std::string_view reference, std::string_view base);

  bool operator==(const ReferenceURI& other) const {
    return reference_ == other.reference_ && base() == other.base();
  }

 private:
  FastString reference_;
  SharedText base_;
};

// Resolves many references against one base. Gives what ReferenceURI::resolve gives; a plain
// relative path costs no more than a copy.
class ReferenceResolver {
 public:
  explicit ReferenceResolver(std::string_view base);
  void resolve(std::string_view reference, std::string& out) const;

 private:
  std::string base_;
  std::string prefix_;  // what comes before a plain relative path
};

}  // namespace mpl
