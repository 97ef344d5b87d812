#include "qnc/qncXml.h"

#include <optional>

#include "qnc/qncXmlDom.h"
#include "qnc/qncXmlTree.h"

namespace qnc::xml {
namespace {

// The attribute of a node by local name: the one without prefix, else the first.
std::optional<uint32_t> findAttribute(const Tree& tree, uint32_t node, std::string_view local) {
  std::optional<uint32_t> found;
  const uint32_t end = tree.attributesEnd(node);
  for (uint32_t i = tree.nodes[node].attributes; i < end; ++i) {
    const uint32_t name = tree.attributes[i].name;
    if (tree.localName(name) != local) continue;
    if (tree.names[name].localOffset == 0) return i;
    if (!found) found = i;
  }
  return found;
}

FastString describe(const ParseError& error, std::string_view name) {
  if (name.empty()) return FastString::format("line %u: %s", error.line, error.reason.c_str());
  return FastString(name) + FastString::format(":%u: %s", error.line, error.reason.c_str());
}

}  // namespace

Tree::Tree() = default;
Tree::~Tree() = default;

// Attribute

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

// Element

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

// Document

Document::Document() = default;
Document::~Document() = default;
Document::Document(const Document&) = default;
Document::Document(Document&&) noexcept = default;
Document& Document::operator=(const Document&) = default;
Document& Document::operator=(Document&&) noexcept = default;

Result Document::parse(const void* data, size_t size, std::string_view name, uint32_t options) {
  tree_.reset();
  errorText_.clear();
  errorLine_ = 0;
  ParseError error;
  Result result = Result::OutOfRange;
  if (size > kMaxSize) {
    error.reason = "The document is larger than 256 MiB";
  } else {
    const std::string_view bytes(static_cast<const char*>(data), size);
    auto tree = std::make_shared<Tree>();
    result = buildTree(bytes, *tree, error);
    if (succeeded(result)) {
      tree->hasSource = (options & KeepSource) != 0;
      if (tree->hasSource) tree->source = bytes;
      tree_ = std::move(tree);
      return Result::Success;
    }
  }
  errorLine_ = error.line;
  errorText_ = describe(error, name);
  return result;
}

Result Document::parseFragment(std::string_view text, std::string_view name, uint32_t options) {
  // A fragment that closes this root or opens another one is not well-formed.
  std::string whole;
  whole.reserve(text.size() + 24);
  whole.append("<fragment>").append(text).append("</fragment>");
  return parse(whole, name, options);
}

Element Document::root() const {
  return tree_ ? Element(tree_.get(), 0) : Element();
}
size_t Document::elementCount() const {
  return tree_ ? tree_->nodes.size() : 0;
}

size_t Document::memorySize() const {
  if (!tree_) return 0;
  return sizeof(Tree) + tree_->nodes.capacityBytes() + tree_->attributes.capacityBytes() +
         tree_->names.capacityBytes() + tree_->arena.capacityBytes() + tree_->source.capacity();
}

// Runs `use` on libxml2's tree, which is made first if need be, and on the number of the context
// element.
template <class Use>
static Result withDom(const Tree* tree, bool sameTree, Use use) {
  if (!tree) return Result::NotInitialized;
  if (!sameTree) return Result::InvalidArguments;
  if (!tree->hasSource) return Result::NotAvailable;
  const std::lock_guard lock(tree->domMutex);
  const QuietLibxml quiet;
  if (!tree->dom) tree->dom = Dom::fromBytes(tree->source);
  return tree->dom ? use(*tree->dom) : Result::OutOfMemory;
}

Result Document::select(std::string_view expression, std::vector<Element>& out,
                        const Namespaces& namespaces, Element context) const {
  const Tree* tree = tree_.get();
  out.clear();
  return withDom(tree, context.empty() || context.tree_ == tree, [&](Dom& dom) {
    std::vector<uint32_t> found;
    const Result result = dom.select(expression, namespaces, context.index_, found);
    for (const uint32_t index : found)
      out.push_back(Element(tree, index));
    return result;
  });
}

Result Document::evaluate(std::string_view expression, FastString& out,
                          const Namespaces& namespaces, Element context) const {
  const Tree* tree = tree_.get();
  return withDom(tree, context.empty() || context.tree_ == tree, [&](Dom& dom) {
    return dom.evaluate(expression, namespaces, context.index_, out);
  });
}

Result Document::canonicalise(FastString& out, Element element, Canonical mode,
                              bool withComments) const {
  const Tree* tree = tree_.get();
  return withDom(tree, element.empty() || element.tree_ == tree, [&](Dom& dom) {
    return dom.canonicalise(element ? element.index_ : Tree::kNone, mode, withComments, out);
  });
}

}  // namespace qnc::xml
