#pragma once

#include <cstdio>
#include <string_view>
#include <vector>

#include "platform/JSON.h"

namespace cli {

// Writes one JSON text piece by piece, so that a list of a million entries is never held as a
// whole. Compact; single values go through platform::JSON. The caller opens and closes in pairs.
class JSONStream {
 public:
  explicit JSONStream(std::FILE* file) : file_(file) {}
  JSONStream(const JSONStream&) = delete;
  JSONStream& operator=(const JSONStream&) = delete;

  void beginObject() { _open('{'); }
  void beginArray() { _open('['); }
  void endObject() { _close('}'); }
  void endArray() { _close(']'); }
  // The name of the next member.
  void key(std::string_view name);
  void value(const platform::JSON& value);
  void member(std::string_view name, const platform::JSON& content) {
    key(name);
    value(content);
  }
  // Ends the text with a line break.
  void finish();

 private:
  void _separate();
  void _open(char bracket);
  void _close(char bracket);
  void _write(std::string_view text);

  std::FILE* const file_;
  std::vector<bool> hasMembers_;  // of every open object or array
  bool afterKey_ = false;
};

}  // namespace cli
