#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "qnc/qncFastString.h"

namespace mpl {

using qnc::FastString;

class ReferenceURI;
// A base URL: a reference with a base of its own, and so on up to the manifest's URL. Shared by all
// that resolve against it and resolved only when somebody asks, so that a manifest with a long base
// and very many elements below it does not multiply the two. Null stands for the empty text.
using SharedBase = std::shared_ptr<const ReferenceURI>;

// A URI reference and the base that it resolves against, which may turn out relative or empty: then
// so is the result.
class ReferenceURI {
 public:
  ReferenceURI() = default;
  // Without a base the reference is taken as it is.
  explicit ReferenceURI(FastString reference, SharedBase base = nullptr)
      : reference_(std::move(reference)), base_(std::move(base)) {}

  const FastString& reference() const { return reference_; }
  // The text of the base.
  FastString base() const { return base_ ? base_->resolve() : FastString(); }
  const SharedBase& sharedBase() const { return base_; }
  // Refers to nothing: neither a reference nor a base.
  bool isEmpty() const { return reference_.empty() && (!base_ || base_->isEmpty()); }
  // By RFC 3986 section 5.2.
  FastString resolve() const { return base_ ? resolve(reference_, base_->resolve()) : reference_; }

  static FastString resolve(std::string_view reference, std::string_view base);
  static SharedBase share(FastString reference, SharedBase base = nullptr) {
    return std::make_shared<const ReferenceURI>(std::move(reference), std::move(base));
  }

  bool operator==(const ReferenceURI& other) const {
    return reference_ == other.reference_ && base() == other.base();
  }

 private:
  FastString reference_;
  SharedBase base_;
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
