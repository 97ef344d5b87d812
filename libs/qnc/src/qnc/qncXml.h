#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "qnc/qncFastString.h"
#include "qnc/qncResult.h"

// XML for reading: a compact, immutable tree of elements, attributes and text, built from libxml2's
// parser events.
//
// Everything comes out as UTF-8, whatever the document was written in. Comments and processing
// instructions are not in the tree, namespace declarations are not attributes, attribute defaults
// of a DTD are not applied. A name with a prefix that nothing declares is split like any other; its
// namespace is empty.
//
// Lifetime: Element, Attribute and every string_view they give are cheap values that point into the
// tree. They are valid while the Document they come from, or a copy of it, lives; parsing again
// into that Document ends it. The character after a view is a NUL, so that data() is a C string
// (a prefix excepted).
//
// Threads: a parsed Document may be read from any number of threads.
namespace qnc::xml {

class Tree;

class Attribute {
 public:
  std::string_view localName() const;
  std::string_view qualifiedName() const;
  std::string_view prefix() const;
  std::string_view namespaceURI() const;
  std::string_view value() const;

 private:
  friend class AttributeIterator;
  Attribute(const Tree* tree, uint32_t index) : tree_(tree), index_(index) {}

  const Tree* tree_;
  uint32_t index_;
};

class ChildRange;
class AttributeRange;

// An empty Element answers empty to everything. Children are elements only; names compare byte by
// byte.
class Element {
 public:
  Element() = default;

  bool empty() const { return tree_ == nullptr; }
  explicit operator bool() const { return tree_ != nullptr; }

  std::string_view localName() const;
  std::string_view qualifiedName() const;  // prefix included, as written
  std::string_view prefix() const;
  std::string_view namespaceURI() const;

  // The value of the attribute with this local name, whatever its prefix ("lang" finds xml:lang);
  // where several have it, the one without prefix, else the first. Empty when there is none.
  std::string_view attribute(std::string_view localName) const;
  FastString getAttributeValue(std::string_view localName) const {
    return FastString(attribute(localName));
  }
  bool hasAttribute(std::string_view localName) const;
  AttributeRange attributes() const;  // in document order

  // The element's own text, CDATA included, in one piece; not that of its children. White space
  // that stands between two tags of an element with children is not kept.
  std::string_view text() const;
  FastString getText() const { return FastString(text()); }

  Element parent() const;
  Element firstChild() const;
  Element nextSibling() const;
  Element firstChildByName(std::string_view localName) const;
  Element nextSiblingByName(std::string_view localName) const;
  ChildRange children() const;  // in document order
  size_t childCount() const;    // walks the children

  bool operator==(const Element&) const = default;

 private:
  friend class Document;
  friend class ElementIterator;
  Element(const Tree* tree, uint32_t index) : tree_(tree), index_(index) {}
  Element named(std::string_view localName) const;

  const Tree* tree_ = nullptr;
  uint32_t index_ = 0;
};

class ElementIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = Element;
  using difference_type = std::ptrdiff_t;
  using pointer = const Element*;
  using reference = Element;

  ElementIterator() = default;
  explicit ElementIterator(Element element) : element_(element) {}
  Element operator*() const { return element_; }
  const Element* operator->() const { return &element_; }
  ElementIterator& operator++() {
    element_ = element_.nextSibling();
    return *this;
  }
  ElementIterator operator++(int) {
    return std::exchange(*this, ElementIterator(element_.nextSibling()));
  }
  bool operator==(const ElementIterator&) const = default;

 private:
  Element element_;
};

class ChildRange {
 public:
  explicit ChildRange(Element first) : first_(first) {}
  ElementIterator begin() const { return ElementIterator(first_); }
  ElementIterator end() const { return ElementIterator(); }
  bool empty() const { return first_.empty(); }

 private:
  Element first_;
};

class AttributeIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = Attribute;
  using difference_type = std::ptrdiff_t;
  using pointer = void;
  using reference = Attribute;

  AttributeIterator() = default;
  AttributeIterator(const Tree* tree, uint32_t index) : tree_(tree), index_(index) {}
  Attribute operator*() const { return Attribute(tree_, index_); }
  AttributeIterator& operator++() {
    ++index_;
    return *this;
  }
  AttributeIterator operator++(int) { return AttributeIterator(tree_, index_++); }
  bool operator==(const AttributeIterator&) const = default;

 private:
  const Tree* tree_ = nullptr;
  uint32_t index_ = 0;
};

class AttributeRange {
 public:
  AttributeRange(AttributeIterator first, AttributeIterator last) : first_(first), last_(last) {}
  AttributeIterator begin() const { return first_; }
  AttributeIterator end() const { return last_; }
  bool empty() const { return first_ == last_; }

 private:
  AttributeIterator first_, last_;
};

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
