#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include "qnc/qncResult.h"

namespace qnc::xml {

// A growing array of plain values. It grows by realloc, which moves large blocks without copying
// them and without a second block beside the first.
template <class T>
class Pool {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  Pool() = default;
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  ~Pool() { std::free(data_); }

  size_t size() const { return size_; }
  const T& operator[](size_t index) const { return data_[index]; }
  T& operator[](size_t index) { return data_[index]; }
  const T* data() const { return data_; }
  size_t capacityBytes() const { return capacity_ * sizeof(T); }

  // Room for `count` more values, which the caller fills in. Throws std::bad_alloc.
  T* extend(size_t count) {
    if (capacity_ - size_ < count) setCapacity(size_ + count + size_ / 2 + 64);
    size_ += count;
    return data_ + size_ - count;
  }
  void append(const T& value) { *extend(1) = value; }
  void shrink() {
    if (capacity_ > size_ && size_ > 0) setCapacity(size_);
  }

 private:
  void setCapacity(size_t capacity) {
    void* moved = std::realloc(static_cast<void*>(data_), capacity * sizeof(T));
    if (!moved) throw std::bad_alloc();
    data_ = static_cast<T*>(moved);
    capacity_ = capacity;
  }

  T* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

class Dom;

// The compact tree. Nodes are elements in document order, so that the first child of a node is the
// next one, and `end`, the node after its last descendant, leads to its sibling. Attributes lie in
// the same order: those of a node end where those of the next begin. All characters are in one
// arena, each piece followed by a NUL.
class Tree {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  struct Text {
    uint32_t offset = 0;
    uint32_t size = 0;
  };
  struct Name {
    Text qualified;
    Text uri;
    uint32_t localOffset = 0;  // within the qualified name; the prefix and a colon stand before it
  };
  struct Node {
    uint32_t name;
    uint32_t parent;
    uint32_t end;
    uint32_t attributes;  // index of the first
    Text text;
  };
  struct AttributeRecord {
    uint32_t name;
    Text value;
  };
  static_assert(sizeof(Node) == 24 && sizeof(AttributeRecord) == 12);

  Tree();
  ~Tree();

  std::string_view text(Text piece) const { return {arena.data() + piece.offset, piece.size}; }
  std::string_view localName(uint32_t name) const {
    const Name& n = names[name];
    return text({n.qualified.offset + n.localOffset, n.qualified.size - n.localOffset});
  }
  std::string_view prefix(uint32_t name) const {
    const Name& n = names[name];
    return text({n.qualified.offset, n.localOffset > 0 ? n.localOffset - 1 : 0});
  }
  uint32_t attributesEnd(uint32_t node) const {
    return node + 1 < nodes.size() ? nodes[node + 1].attributes
                                   : static_cast<uint32_t>(attributes.size());
  }

  Pool<Node> nodes;
  Pool<AttributeRecord> attributes;
  Pool<Name> names;
  Pool<char> arena;

  // The bytes of the document, if they were to be kept, and libxml2's tree of them once somebody
  // has asked for it; the lock is held while that tree is in use.
  bool hasSource = false;
  std::string source;
  mutable std::mutex domMutex;
  mutable std::unique_ptr<Dom> dom;
};

// Why there is no tree, and where.
struct ParseError {
  std::string reason;
  uint32_t line = 0;
};

// Fills an empty tree. The bytes are at most Document::kMaxSize.
Result buildTree(std::string_view bytes, Tree& tree, ParseError& error);

// Options that every use of libxml2 shares: predefined entities and character references are
// resolved (nothing else can be there), nothing is fetched, nothing is printed.
int parserOptions();

// While it lives, what libxml2 reports on this thread without a parser of ours goes nowhere instead
// of to stderr.
class QuietLibxml {
 public:
  QuietLibxml();
  ~QuietLibxml();
  QuietLibxml(const QuietLibxml&) = delete;
  QuietLibxml& operator=(const QuietLibxml&) = delete;

 private:
  void (*structured_)(void*, struct _xmlError*);
  void* structuredContext_;
  void (*generic_)(void*, const char*, ...);
  void* genericContext_;
};

}  // namespace qnc::xml
