// The compact tree against libxml2's own: the same verdict, elements, attributes and texts.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <libxml/parser.h>
#include <libxml/tree.h>

#include "qnc/qncXml.h"

namespace {

using qnc::Result;
using qnc::xml::Document;
using qnc::xml::Element;

std::string_view view(const xmlChar* text) {
  return text ? std::string_view(reinterpret_cast<const char*>(text)) : std::string_view();
}

template <class Node>  // xmlNode or xmlAttr
std::string qualifiedName(const Node* node) {
  if (!node->ns || !node->ns->prefix) return std::string(view(node->name));
  return std::string(view(node->ns->prefix)).append(":").append(view(node->name));
}

template <class Node>
std::string_view uriOf(const Node* node) {
  return node->ns ? view(node->ns->href) : std::string_view();
}

bool isText(const xmlNode* node) {
  return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE;
}

// Own text; runs of white space go where the element has children.
std::string textOf(const xmlNode* element) {
  std::string text, run;
  bool hasChildren = false;
  const auto endRun = [&] {
    if (run.find_first_not_of(" \t\r\n") != run.npos) text += run;
    run.clear();
  };
  for (const xmlNode* node = element->children; node; node = node->next) {
    if (isText(node)) run += view(node->content);
    if (node->type == XML_ELEMENT_NODE) {
      hasChildren = true;
      endRun();
    }
  }
  if (!hasChildren) return run;
  endRun();
  return text;
}

void demand(bool holds, const char* what, std::string_view ours, std::string_view theirs) {
  if (holds) return;
  std::fprintf(stderr, "%s\n<%.*s>\n<%.*s>\n", what, static_cast<int>(ours.size()), ours.data(),
               static_cast<int>(theirs.size()), theirs.data());
  std::abort();
}

void equal(const char* what, std::string_view ours, std::string_view theirs) {
  demand(ours == theirs, what, ours, theirs);
}

void compareAttributes(const Element& ours, const xmlNode* theirs) {
  const xmlAttr* attribute = theirs->properties;
  for (const auto our : ours.attributes()) {
    demand(attribute != nullptr, "an attribute too many", our.qualifiedName(), "");
    equal("attribute name", our.qualifiedName(), qualifiedName(attribute));
    equal("attribute namespace", our.namespaceURI(), uriOf(attribute));
    xmlChar* value = xmlNodeListGetString(theirs->doc, attribute->children, 1);
    equal("value", our.value(), view(value));
    demand(our.value().data()[our.value().size()] == '\0', "NUL after a value", our.value(), "");
    xmlFree(value);
    demand(ours.hasAttribute(our.localName()), "found by name", our.localName(), "");
    attribute = attribute->next;
  }
  demand(attribute == nullptr, "an attribute too few", ours.qualifiedName(), "");
}

const xmlNode* nextElement(const xmlNode* node) {
  while (node && node->type != XML_ELEMENT_NODE)
    node = node->next;
  return node;
}

// Depth is bounded by the parser.
size_t compare(const Element& ours, const xmlNode* theirs) {
  equal("element name", ours.qualifiedName(), qualifiedName(theirs));
  equal("element namespace", ours.namespaceURI(), uriOf(theirs));
  equal("text", ours.text(), textOf(theirs));
  compareAttributes(ours, theirs);
  size_t count = 1;
  const xmlNode* child = nextElement(theirs->children);
  for (const Element our : ours.children()) {
    demand(child != nullptr, "a child too many", our.qualifiedName(), "");
    demand(our.parent() == ours, "parent", our.qualifiedName(), ours.qualifiedName());
    count += compare(our, child);
    child = nextElement(child->next);
  }
  demand(child == nullptr, "a child too few", ours.qualifiedName(), "");
  return count;
}

// What an undeclared entity leaves in libxml2's tree has no equal in ours.
bool holdsReferences(const xmlNode* node) {
  for (; node; node = node->next) {
    if (node->type == XML_ENTITY_REF_NODE) return true;
    if (node->type != XML_ELEMENT_NODE) continue;
    if (holdsReferences(node->children)) return true;
    for (const xmlAttr* a = node->properties; a; a = a->next) {
      if (holdsReferences(a->children)) return true;
    }
  }
  return false;
}

void checkXPath(const Document& document, size_t count) {
  std::vector<Element> all;
  demand(document.select("//*", all) == Result::Success && all.size() == count, "XPath", "", "");
  demand(all.front() == document.root(), "the first is the root", "", "");
  for (size_t i = 1; i < all.size(); ++i) {
    const Element before = all[i - 1];
    demand(before.firstChild() ? before.firstChild() == all[i] : true, "document order", "", "");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Document document;
  const Result result = document.parse(data, size, "fuzz", Document::KeepSource);
  demand((result == Result::Success) == document.errorText().empty(), "error text",
         document.errorText(), "");
  demand((result == Result::Success) == bool(document.root()), "root", "", "");
  if (result == Result::UnsupportedFeature) return 0;
  // Of the limits only that of depth is libxml2's.
  if (result == Result::OutOfRange && !document.errorText().contains("depth")) return 0;

  xmlSetStructuredErrorFunc(nullptr, [](void*, xmlErrorPtr) {});
  xmlDoc* theirs =
      xmlReadMemory(reinterpret_cast<const char*>(data), static_cast<int>(size), nullptr, nullptr,
                    XML_PARSE_NOENT | XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  demand((result == Result::Success) == (theirs != nullptr), "verdict", document.errorText(),
         theirs ? "accepted" : "refused");
  if (theirs && !holdsReferences(xmlDocGetRootElement(theirs))) {
    const size_t count = compare(document.root(), xmlDocGetRootElement(theirs));
    demand(count == document.elementCount(), "element count", "", "");
    checkXPath(document, count);
    qnc::FastString canonical;
    (void)document.canonicalise(canonical);
  }
  xmlFreeDoc(theirs);
  return 0;
}
