#include "qnc/qncXmlDom.h"

#include <libxml/c14n.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include "qnc/qncXmlTree.h"

namespace qnc::xml {
namespace {

struct Free {
  void operator()(xmlXPathContext* context) const { xmlXPathFreeContext(context); }
  void operator()(xmlXPathObject* object) const { xmlXPathFreeObject(object); }
  void operator()(xmlOutputBuffer* buffer) const { xmlOutputBufferClose(buffer); }
  void operator()(xmlChar* text) const { xmlFree(text); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

const xmlChar* chars(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

xmlNode* nextElement(xmlNode* node) {
  while (node && node->type != XML_ELEMENT_NODE)
    node = node->next;
  return node;
}

// The element after `node` in document order.
xmlNode* following(xmlNode* node) {
  if (xmlNode* child = nextElement(node->children)) return child;
  while (node && node->type == XML_ELEMENT_NODE) {
    if (xmlNode* sibling = nextElement(node->next)) return sibling;
    node = node->parent;
  }
  return nullptr;
}

Owned<xmlXPathObject> evaluateXPath(xmlDoc* doc, xmlNode* context, std::string_view expression,
                                    const Namespaces& namespaces) {
  Owned<xmlXPathContext> xpath(xmlXPathNewContext(doc));
  if (!xpath) return nullptr;
  xpath->node = context;
  for (const auto& [prefix, uri] : namespaces) {
    xmlXPathRegisterNs(xpath.get(), chars(prefix.str()), chars(uri.str()));
  }
  return Owned<xmlXPathObject>(xmlXPathEval(chars(std::string(expression)), xpath.get()));
}

int c14nMode(Canonical mode) {
  switch (mode) {
    case Canonical::Inclusive10:
      return XML_C14N_1_0;
    case Canonical::Exclusive10:
      return XML_C14N_EXCLUSIVE_1_0;
    case Canonical::Inclusive11:
      return XML_C14N_1_1;
  }
  return XML_C14N_1_0;
}

// Whether a node is `top` or lies below it. Namespaces are no nodes of the tree; their element
// comes as `parent`.
int isBelow(void* top, xmlNode* node, xmlNode* parent) {
  if (node && node->type == XML_NAMESPACE_DECL) node = parent;
  while (node && node != top)
    node = node->parent;
  return node != nullptr;
}

}  // namespace

std::unique_ptr<Dom> Dom::fromBytes(std::string_view bytes) {
  xmlDoc* doc = xmlReadMemory(bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr,
                              parserOptions());
  return doc ? std::unique_ptr<Dom>(new Dom(doc)) : nullptr;
}

Dom::Dom(xmlDoc* doc) : doc_(doc) {
  for (xmlNode* node = xmlDocGetRootElement(doc); node; node = following(node)) {
    elements_.push_back(node);
  }
  // Whose place in the array is its number; the array stays where it is.
  for (xmlNode*& place : elements_)
    place->_private = &place;
}

Dom::~Dom() {
  xmlFreeDoc(doc_);
}

uint32_t Dom::indexOf(const xmlNode* node) const {
  return static_cast<uint32_t>(static_cast<xmlNode* const*>(node->_private) - elements_.data());
}

Result Dom::select(std::string_view expression, const Namespaces& namespaces, uint32_t context,
                   std::vector<uint32_t>& out) {
  const auto result = evaluateXPath(doc_, elements_[context], expression, namespaces);
  if (!result || result->type != XPATH_NODESET) return Result::InvalidFormat;
  xmlNodeSet* nodes = result->nodesetval;
  if (!nodes) return Result::Success;
  xmlXPathNodeSetSort(nodes);
  for (int i = 0; i < nodes->nodeNr; ++i) {
    if (nodes->nodeTab[i]->type == XML_ELEMENT_NODE) out.push_back(indexOf(nodes->nodeTab[i]));
  }
  return Result::Success;
}

Result Dom::evaluate(std::string_view expression, const Namespaces& namespaces, uint32_t context,
                     FastString& out) {
  const auto result = evaluateXPath(doc_, elements_[context], expression, namespaces);
  if (!result) return Result::InvalidFormat;
  const Owned<xmlChar> text(xmlXPathCastToString(result.get()));
  if (!text) return Result::OutOfMemory;
  out = reinterpret_cast<const char*>(text.get());
  return Result::Success;
}

Result Dom::canonicalise(uint32_t element, Canonical mode, bool withComments, FastString& out) {
  const Owned<xmlOutputBuffer> buffer(xmlAllocOutputBuffer(nullptr));
  if (!buffer) return Result::OutOfMemory;
  const bool whole = element == Tree::kNone;
  const int written =
      xmlC14NExecute(doc_, whole ? nullptr : isBelow, whole ? nullptr : elements_[element],
                     c14nMode(mode), nullptr, withComments ? 1 : 0, buffer.get());
  if (written < 0) return Result::GeneralFailure;
  out = FastString(xmlOutputBufferGetContent(buffer.get()), xmlOutputBufferGetSize(buffer.get()));
  return Result::Success;
}

}  // namespace qnc::xml
