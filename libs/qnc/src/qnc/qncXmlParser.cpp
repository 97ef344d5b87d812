#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/valid.h>

#include "qnc/qncXmlTree.h"

namespace qnc::xml {
namespace {

// A limit of libxml2's that it applies only while it builds its own tree.
constexpr size_t kMaxTextSize = XML_MAX_TEXT_LENGTH;
// libxml2 compares every attribute of an element with every other, and much of a DTD likewise:
// without these a megabyte could cost it minutes.
constexpr int kMaxAttributes = 1000;
constexpr int kMaxNamespaces = 1000;  // in scope
constexpr size_t kMaxSubsetSize = 64 * 1024;

constexpr char kTooManyAttributes[] = "An element has too many attributes";
constexpr char kEntities[] = "The DTD declares entities";

std::string_view view(const xmlChar* text) {
  return text ? std::string_view(reinterpret_cast<const char*>(text)) : std::string_view();
}

bool isBlank(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; });
}

void ignoreMessage(void*, const char*, ...) {}

// Names by the addresses that the parser's dictionary gives them.
class NameTable {
 public:
  explicit NameTable(Tree& tree) : tree_(tree), slots_(256) {}

  uint32_t idOf(const xmlChar* local, const xmlChar* prefix, const xmlChar* uri) {
    Slot* slot = find(local, prefix, uri);
    if (!slot->local) {
      if (tree_.names.size() * 2 >= slots_.size()) {
        grow();
        slot = find(local, prefix, uri);
      }
      *slot = {local, prefix, uri, add(view(local), view(prefix), view(uri))};
    }
    return slot->id;
  }

 private:
  struct Slot {
    const xmlChar* local = nullptr;
    const xmlChar* prefix = nullptr;
    const xmlChar* uri = nullptr;
    uint32_t id = 0;
  };

  static size_t hash(const xmlChar* local, const xmlChar* prefix, const xmlChar* uri) {
    const uint64_t mixed =
        (reinterpret_cast<uint64_t>(local) * 31 ^ reinterpret_cast<uint64_t>(prefix)) * 31 ^
        reinterpret_cast<uint64_t>(uri);
    return static_cast<size_t>(mixed * 0x9E3779B97F4A7C15ULL >> 32);
  }

  Slot* find(const xmlChar* local, const xmlChar* prefix, const xmlChar* uri) {
    const size_t mask = slots_.size() - 1;
    size_t i = hash(local, prefix, uri) & mask;
    while (slots_[i].local &&
           (slots_[i].local != local || slots_[i].prefix != prefix || slots_[i].uri != uri)) {
      i = (i + 1) & mask;
    }
    return &slots_[i];
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.local) *find(slot.local, slot.prefix, slot.uri) = slot;
    }
  }

  uint32_t add(std::string_view local, std::string_view prefix, std::string_view uri);

  Tree& tree_;
  std::vector<Slot> slots_;
};

Tree::Text storeText(Tree& tree, std::initializer_list<std::string_view> parts) {
  size_t size = 0;
  for (const std::string_view part : parts)
    size += part.size();
  const size_t offset = tree.arena.size();
  // An encoding makes at most a few bytes of one, so this cannot be met; offsets are 32 bits all
  // the same.
  if (offset + size >= UINT32_MAX) throw std::bad_alloc();
  char* to = tree.arena.extend(size + 1);
  for (const std::string_view part : parts) {
    if (!part.empty()) std::memcpy(to, part.data(), part.size());
    to += part.size();
  }
  *to = '\0';
  return {static_cast<uint32_t>(offset), static_cast<uint32_t>(size)};
}

uint32_t NameTable::add(std::string_view local, std::string_view prefix, std::string_view uri) {
  Tree::Name name;
  name.qualified =
      prefix.empty() ? storeText(tree_, {local}) : storeText(tree_, {prefix, ":", local});
  name.localOffset = static_cast<uint32_t>(name.qualified.size - local.size());
  // A prefix that nothing declares may come as part of the name.
  const size_t colon = prefix.empty() ? local.find(':') : local.npos;
  if (colon != local.npos && colon > 0 && colon + 1 < local.size()) {
    name.localOffset = static_cast<uint32_t>(colon + 1);
  }
  name.uri = storeText(tree_, {uri});
  tree_.names.append(name);
  return static_cast<uint32_t>(tree_.names.size() - 1);
}

// Receives the parser's events.
class Builder {
 public:
  Builder(Tree& tree, ParseError& error) : tree_(tree), names_(tree), error_(error) {}

  Result parse(std::string_view bytes);

 private:
  // An open element and the text seen in it so far. A run of text ends at each tag.
  struct Frame {
    uint32_t node = 0;
    bool hasChildren = false;
    size_t runStart = 0;
    std::string text;

    void endRun() {
      if (isBlank(std::string_view(text).substr(runStart))) text.resize(runStart);
      runStart = text.size();
    }
  };

  // Hands the bytes to libxml2 piece by piece: it makes no copy of them all, and what it has met
  // in a tag or a DTD that has no end can be looked at in between.
  static int read(void* builder, char* to, int size);
  bool attachInput();
  void checkLimits();
  static xmlSAXHandler handler();
  // Runs `action` of the builder that libxml2 hands back; nothing may be thrown through libxml2.
  template <class Action>
  static void run(void* builder, Action action);

  void startElement(const xmlChar* local, const xmlChar* prefix, const xmlChar* uri,
                    const xmlChar** attributes, int count);
  void endElement();
  void characters(std::string_view text);
  void fail(Result result, const char* reason);
  // The same from within an event, which is the last one.
  void refuse(Result result, const char* reason);
  void noteError(const xmlError& error);

  Tree& tree_;
  NameTable names_;
  ParseError& error_;
  Result result_ = Result::Success;
  std::string_view rest_;  // of the bytes
  size_t subsetSize_ = 0;  // bytes read while in a DTD
  xmlParserCtxtPtr context_ = nullptr;
  std::vector<Frame> frames_;  // the first depth_ are open; the rest keep their memory
  size_t depth_ = 0;
};

template <class Action>
void Builder::run(void* data, Action action) {
  auto* builder = static_cast<Builder*>(data);
  try {
    if (succeeded(builder->result_)) action(*builder);
  } catch (const std::exception&) {
    builder->refuse(Result::OutOfMemory, "Out of memory");
  }
}

void Builder::fail(Result result, const char* reason) {
  if (failed(result_)) return;
  result_ = result;
  error_.reason = reason;
  error_.line = context_->input ? static_cast<uint32_t>(std::max(context_->input->line, 0)) : 0;
}

void Builder::refuse(Result result, const char* reason) {
  fail(result, reason);
  xmlStopParser(context_);
}

int Builder::read(void* data, char* to, int size) {
  auto* builder = static_cast<Builder*>(data);
  builder->checkLimits();
  if (failed(builder->result_)) return -1;
  const size_t count = builder->rest_.copy(to, static_cast<size_t>(size));
  builder->rest_.remove_prefix(count);
  if (builder->context_->inSubset != 0) builder->subsetSize_ += count;
  return static_cast<int>(count);
}

bool Builder::attachInput() {
  auto* buffer = xmlParserInputBufferCreateIO(read, nullptr, this, XML_CHAR_ENCODING_NONE);
  if (!buffer) return false;
  auto* input = xmlNewIOInputStream(context_, buffer, XML_CHAR_ENCODING_NONE);
  if (!input) xmlFreeParserInputBuffer(buffer);
  return input && inputPush(context_, input) >= 0;
}

void Builder::checkLimits() {
  // Five places an attribute, doubled as they fill; two a namespace.
  if (context_->maxatts > 2 * 5 * kMaxAttributes || context_->nsNr > 2 * kMaxNamespaces) {
    fail(Result::OutOfRange, kTooManyAttributes);
  }
  if (subsetSize_ > kMaxSubsetSize) fail(Result::OutOfRange, "The DTD is too long");
}

void Builder::noteError(const xmlError& error) {
  // Namespace errors and warnings leave a document usable; the first of the others is the cause of
  // the rest.
  if (error.level != XML_ERR_FATAL || !error_.reason.empty()) return;
  error_.reason = error.message ? error.message : "not well-formed";
  while (!error_.reason.empty() && error_.reason.back() == '\n')
    error_.reason.pop_back();
  error_.line = static_cast<uint32_t>(std::max(error.line, 0));
  if (error.code == XML_ERR_NO_MEMORY) result_ = Result::OutOfMemory;
  if (error.code == XML_ERR_INTERNAL_ERROR && depth_ > xmlParserMaxDepth) {
    result_ = Result::OutOfRange;
  }
}

void Builder::startElement(const xmlChar* local, const xmlChar* prefix, const xmlChar* uri,
                           const xmlChar** attributes, int count) {
  if (count > kMaxAttributes || context_->nsNr > 2 * kMaxNamespaces) {
    return refuse(Result::OutOfRange, kTooManyAttributes);
  }
  Tree::Node node{};
  node.name = names_.idOf(local, prefix, uri);
  node.parent = Tree::kNone;
  node.attributes = static_cast<uint32_t>(tree_.attributes.size());
  if (depth_ > 0) {
    Frame& parent = frames_[depth_ - 1];
    parent.endRun();
    parent.hasChildren = true;
    node.parent = parent.node;
  }
  if (depth_ == frames_.size()) frames_.emplace_back();
  Frame& frame = frames_[depth_++];
  frame.node = static_cast<uint32_t>(tree_.nodes.size());
  frame.hasChildren = false;
  frame.runStart = 0;
  frame.text.clear();
  tree_.nodes.append(node);
  // Name, prefix, URI, begin and end of the value.
  for (const xmlChar** a = attributes; count > 0; --count, a += 5) {
    const auto* value = reinterpret_cast<const char*>(a[3]);
    const auto size = static_cast<size_t>(a[4] - a[3]);
    const uint32_t name = names_.idOf(a[0], a[1], a[2]);
    tree_.attributes.append({name, storeText(tree_, {std::string_view(value, size)})});
  }
}

void Builder::endElement() {
  Frame& frame = frames_[--depth_];
  if (frame.hasChildren) frame.endRun();
  Tree::Node& node = tree_.nodes[frame.node];
  node.end = static_cast<uint32_t>(tree_.nodes.size());
  if (!frame.text.empty()) node.text = storeText(tree_, {frame.text});
}

void Builder::characters(std::string_view text) {
  if (depth_ == 0) return;
  Frame& frame = frames_[depth_ - 1];
  if (frame.text.size() - frame.runStart + text.size() > kMaxTextSize) {
    return refuse(Result::OutOfRange, "A text is too long");
  }
  frame.text.append(text);
}

xmlSAXHandler Builder::handler() {
  xmlSAXHandler sax{};
  sax.initialized = XML_SAX2_MAGIC;
  sax.startElementNs = [](void* self, const xmlChar* local, const xmlChar* prefix,
                          const xmlChar* uri, int, const xmlChar**, int count, int defaulted,
                          const xmlChar** attributes) {
    run(self,
        [&](Builder& b) { b.startElement(local, prefix, uri, attributes, count - defaulted); });
  };
  sax.endElementNs = [](void* self, const xmlChar*, const xmlChar*, const xmlChar*) {
    run(self, [](Builder& b) { b.endElement(); });
  };
  sax.characters = [](void* self, const xmlChar* text, int size) {
    run(self, [&](Builder& b) {
      b.characters({reinterpret_cast<const char*>(text), static_cast<size_t>(size)});
    });
  };
  sax.ignorableWhitespace = sax.characters;
  sax.cdataBlock = sax.characters;
  sax.entityDecl = [](void* self, const xmlChar*, int, const xmlChar*, const xmlChar*, xmlChar*) {
    run(self, [](Builder& b) { b.refuse(Result::UnsupportedFeature, kEntities); });
  };
  sax.unparsedEntityDecl = [](void* self, const xmlChar*, const xmlChar*, const xmlChar*,
                              const xmlChar*) {
    run(self, [](Builder& b) { b.refuse(Result::UnsupportedFeature, kEntities); });
  };
  sax.attributeDecl = [](void* self, const xmlChar*, const xmlChar*, int, int, const xmlChar* value,
                         xmlEnumerationPtr values) {
    xmlFreeEnumeration(values);
    if (!value) return;
    run(self, [](Builder& b) {
      b.refuse(Result::UnsupportedFeature, "The DTD declares defaults of attributes");
    });
  };
  sax.serror = [](void* self, xmlErrorPtr error) {
    run(self, [&](Builder& b) { b.noteError(*error); });
  };
  return sax;
}

Result Builder::parse(std::string_view bytes) {
  if (bytes.empty()) {
    error_ = {"Document is empty", 1};
    return Result::InvalidFormat;
  }
  context_ = xmlNewParserCtxt();
  if (!context_) return Result::OutOfMemory;
  xmlCtxtUseOptions(context_, parserOptions());
  *context_->sax = handler();
  context_->userData = this;
  rest_ = bytes;
  const bool attached = attachInput();
  if (attached) xmlParseDocument(context_);
  const bool wellFormed = context_->wellFormed != 0;
  // A DTD makes the parser create a document even so.
  xmlFreeDoc(std::exchange(context_->myDoc, nullptr));
  xmlFreeParserCtxt(std::exchange(context_, nullptr));

  if (!attached) return Result::OutOfMemory;
  if (failed(result_)) return result_;
  if (!wellFormed || tree_.nodes.size() == 0) {
    if (error_.reason.empty()) error_.reason = "not well-formed";
    return Result::InvalidFormat;
  }
  tree_.nodes.shrink();
  tree_.attributes.shrink();
  tree_.names.shrink();
  tree_.arena.shrink();
  return Result::Success;
}

}  // namespace

int parserOptions() {
  return XML_PARSE_NOENT | XML_PARSE_NONET | XML_PARSE_NOCDATA | XML_PARSE_NOERROR |
         XML_PARSE_NOWARNING;
}

QuietLibxml::QuietLibxml()
    : structured_(xmlStructuredError),
      structuredContext_(xmlStructuredErrorContext),
      generic_(xmlGenericError),
      genericContext_(xmlGenericErrorContext) {
  xmlSetStructuredErrorFunc(nullptr, [](void*, xmlErrorPtr) {});
  xmlSetGenericErrorFunc(nullptr, ignoreMessage);
}

QuietLibxml::~QuietLibxml() {
  xmlSetStructuredErrorFunc(structuredContext_, structured_);
  xmlSetGenericErrorFunc(genericContext_, generic_);
}

Result buildTree(std::string_view bytes, Tree& tree, ParseError& error) {
  // Once per process, before the first use on any thread.
  static const bool initialized = [] {
    xmlInitParser();
    return true;
  }();
  (void)initialized;
  const QuietLibxml quiet;
  return Builder(tree, error).parse(bytes);
}

}  // namespace qnc::xml
