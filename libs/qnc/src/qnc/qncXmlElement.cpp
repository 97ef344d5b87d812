#include "qnc/qncXmlElement.h"

#include <optional>

#include "qnc/qncXmlTree.h"

namespace qnc::xml {
namespace {

// Names differ mostly in their size or first character, and the frequent ones have no other.
bool same(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  if (a.empty()) return true;
  return a.front() == b.front() && (a.size() == 1 || a == b);
}

// The attribute of a node by local name: the one without prefix, else the first.
std::optional<uint32_t> findAttribute(const Tree& tree, uint32_t node, std::string_view local) {
  std::optional<uint32_t> found;
  const uint32_t end = tree.attributesEnd(node);
  for (uint32_t i = tree.nodes[node].attributes; i < end; ++i) {
    const uint32_t name = tree.attributes[i].name;
    if (!same(tree.localName(name), local)) continue;
    if (tree.names[name].localOffset == 0) return i;
    if (!found) found = i;
  }
  return found;
}

}  // namespace

std::string_view Attribute::localName() const {
  return tree_->localName(tree_->attributes[index_].name);
}
std::string_view Attribute::qualifiedName() const {
  return tree_->text(tree_->names[tree_->attributes[index_].name].qualified);
}
std::string_view Attribute::prefix() const {
  return tree_->prefix(tree_->attributes[index_].name);
}
std::string_view Attribute::namespaceURI() const {
  return tree_->text(tree_->names[tree_->attributes[index_].name].uri);
}
std::string_view Attribute::value() const {
  return tree_->text(tree_->attributes[index_].value);
}

std::string_view Element::localName() const {
  return tree_ ? tree_->localName(tree_->nodes[index_].name) : "";
}

std::string_view Element::qualifiedName() const {
  return tree_ ? tree_->text(tree_->names[tree_->nodes[index_].name].qualified) : "";
}

std::string_view Element::prefix() const {
  return tree_ ? tree_->prefix(tree_->nodes[index_].name) : "";
}

std::string_view Element::namespaceURI() const {
  return tree_ ? tree_->text(tree_->names[tree_->nodes[index_].name].uri) : "";
}

std::string_view Element::attribute(std::string_view localName) const {
  if (!tree_) return "";
  const auto found = findAttribute(*tree_, index_, localName);
  return found ? tree_->text(tree_->attributes[*found].value) : "";
}

bool Element::hasAttribute(std::string_view localName) const {
  return tree_ && findAttribute(*tree_, index_, localName).has_value();
}

AttributeRange Element::attributes() const {
  if (!tree_) return {AttributeIterator(), AttributeIterator()};
  return {AttributeIterator(tree_, tree_->nodes[index_].attributes),
          AttributeIterator(tree_, tree_->attributesEnd(index_))};
}

std::string_view Element::text() const {
  return tree_ && tree_->nodes[index_].text.size > 0 ? tree_->text(tree_->nodes[index_].text) : "";
}

Element Element::parent() const {
  if (!tree_ || tree_->nodes[index_].parent == Tree::kNone) return {};
  return {tree_, tree_->nodes[index_].parent};
}

Element Element::firstChild() const {
  if (!tree_ || tree_->nodes[index_].end == index_ + 1) return {};
  return {tree_, index_ + 1};
}

Element Element::nextSibling() const {
  if (!tree_) return {};
  const Tree::Node& node = tree_->nodes[index_];
  if (node.parent == Tree::kNone || node.end >= tree_->nodes[node.parent].end) return {};
  return {tree_, node.end};
}

// This element or the first sibling after it that has the name.
Element Element::named(std::string_view localName) const {
  Element element = *this;
  while (element && element.localName() != localName)
    element = element.nextSibling();
  return element;
}

Element Element::firstChildByName(std::string_view localName) const {
  return firstChild().named(localName);
}

Element Element::nextSiblingByName(std::string_view localName) const {
  return nextSibling().named(localName);
}

ChildRange Element::children() const {
  return ChildRange(firstChild());
}

size_t Element::childCount() const {
  size_t count = 0;
  for (Element child = firstChild(); child; child = child.nextSibling())
    ++count;
  return count;
}

}  // namespace qnc::xml
