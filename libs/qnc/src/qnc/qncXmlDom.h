#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "qnc/qncXml.h"

struct _xmlDoc;
struct _xmlNode;

namespace qnc::xml {

// libxml2's own tree of a document, for what the compact tree cannot do. Its elements are counted
// in document order, as the nodes of the compact tree are. Not synchronised.
class Dom {
 public:
  // Null when the bytes, which have been parsed once, cannot be parsed again for want of memory.
  static std::unique_ptr<Dom> fromBytes(std::string_view bytes);
  ~Dom();
  Dom(const Dom&) = delete;
  Dom& operator=(const Dom&) = delete;

  Result select(std::string_view expression, const Namespaces& namespaces, uint32_t context,
                std::vector<uint32_t>& out);
  Result evaluate(std::string_view expression, const Namespaces& namespaces, uint32_t context,
                  FastString& out);
  // `element` is Tree::kNone for the whole document.
  Result canonicalise(uint32_t element, Canonical mode, bool withComments, FastString& out);

 private:
  explicit Dom(_xmlDoc* doc);
  uint32_t indexOf(const _xmlNode* node) const;

  _xmlDoc* doc_;
  std::vector<_xmlNode*> elements_;
};

}  // namespace qnc::xml
