#include "cli/JSONStream.h"

namespace cli {

void JSONStream::key(std::string_view name) {
  _separate();
  _write(platform::JSON(name).dump());
  _write(":");
  afterKey_ = true;
}

void JSONStream::value(const platform::JSON& value) {
  _separate();
  _write(value.dump());
}

void JSONStream::finish() {
  _write("\n");
}

void JSONStream::_separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (hasMembers_.empty()) return;
  if (hasMembers_.back()) _write(",");
  hasMembers_.back() = true;
}

void JSONStream::_open(char bracket) {
  _separate();
  _write({&bracket, 1});
  hasMembers_.push_back(false);
}

void JSONStream::_close(char bracket) {
  hasMembers_.pop_back();
  _write({&bracket, 1});
}

// A failed write shows in ferror, which the end of the program looks at.
void JSONStream::_write(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), file_);
}

}  // namespace cli
