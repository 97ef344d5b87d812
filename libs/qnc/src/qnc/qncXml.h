#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "qnc/qncFastString.h"
#include "qnc/qncResult.h"
#include "qnc/qncXmlElement.h"

namespace qnc::xml {

// Prefix and URI, for names in XPath expressions.
using Namespaces = std::vector<std::pair<FastString, FastString>>;

enum class Canonical { Inclusive10, Exclusive10, Inclusive11 };

// A parsed document. Copies share the tree.
//
// Refused, with OutOfRange: more than kMaxSize bytes, what goes beyond libxml2's own limits
// (nesting of 257, texts of 10,000,000 bytes), over 1,000 attributes of an element or namespaces in
// scope, a DTD of more than some 64 KiB. Refused with UnsupportedFeature: a DTD that declares
// entities or default values of attributes. Nothing outside the bytes is ever read: no network, no
// files, no external entities or subsets.
//
// XPath and canonical serialisation work on libxml2's own tree, which is built from the document's
// bytes at the first call and then kept; it costs some 600 bytes an element. They are available
// only if `KeepSource` was given.
class Document {
 public:
  static constexpr size_t kMaxSize = size_t{256} << 20;
  enum Options : uint32_t { Default = 0, KeepSource = 1 };

  Document();
  ~Document();
  Document(const Document&);
  Document(Document&&) noexcept;
  Document& operator=(const Document&);
  Document& operator=(Document&&) noexcept;

  // Success, or the reason why there is no tree: OutOfRange and UnsupportedFeature as above,
  // InvalidFormat for anything that is not well-formed, OutOfMemory. `name` stands for the document
  // in the error text.
  [[nodiscard]] Result parse(const void* data, size_t size, std::string_view name = {},
                             uint32_t options = Default);
  [[nodiscard]] Result parse(std::string_view text, std::string_view name = {},
                             uint32_t options = Default) {
    return parse(text.data(), text.size(), name, options);
  }
  // Any number of elements and texts in UTF-8, without declaration or DTD. They become the children
  // of a root element named "fragment".
  [[nodiscard]] Result parseFragment(std::string_view text, std::string_view name = {},
                                     uint32_t options = Default);

  // Of the last parse; empty and 0 after success. The text reads "name:line: reason" ("line N:
  // reason" without a name).
  const FastString& errorText() const { return errorText_; }
  uint32_t errorLine() const { return errorLine_; }

  Element root() const;
  size_t elementCount() const;
  // Bytes that the tree occupies.
  size_t memorySize() const;

  // The elements that an XPath 1.0 expression selects, in document order; other nodes are left out.
  // `context` is the root element unless given. InvalidFormat for an expression that cannot be
  // evaluated or selects no node set, NotAvailable without KeepSource.
  [[nodiscard]] Result select(std::string_view expression, std::vector<Element>& out,
                              const Namespaces& namespaces = {}, Element context = {}) const;
  // The string value of an expression.
  [[nodiscard]] Result evaluate(std::string_view expression, FastString& out,
                                const Namespaces& namespaces = {}, Element context = {}) const;
  // Canonical XML of an element and all below it, or of the whole document when `element` is empty.
  [[nodiscard]] Result canonicalise(FastString& out, Element element = {},
                                    Canonical mode = Canonical::Inclusive10,
                                    bool withComments = false) const;

 private:
  std::shared_ptr<const Tree> tree_;
  FastString errorText_;
  uint32_t errorLine_ = 0;
};

}  // namespace qnc::xml
