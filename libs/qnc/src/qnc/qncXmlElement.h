#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <utility>

#include "qnc/qncFastString.h"

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

}  // namespace qnc::xml
