#include "qnc/qncXml.h"

#include "qnc/qncXmlDom.h"
#include "qnc/qncXmlTree.h"

namespace qnc::xml {
namespace {

FastString describe(const ParseError& error, std::string_view name) {
  if (name.empty()) return FastString::format("line %u: %s", error.line, error.reason.c_str());
  return FastString(name) + FastString::format(":%u: %s", error.line, error.reason.c_str());
}

}  // namespace

Tree::Tree() = default;
Tree::~Tree() = default;

Document::Document() = default;
Document::~Document() = default;
Document::Document(const Document&) = default;
Document::Document(Document&&) noexcept = default;
Document& Document::operator=(const Document&) = default;
Document& Document::operator=(Document&&) noexcept = default;

Result Document::parse(const void* data, size_t size, std::string_view name, uint32_t options) {
  const auto former = std::exchange(tree_, nullptr);  // may hold the bytes
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
