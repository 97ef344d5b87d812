#include "mpl/ReferenceURI.h"

#include "qnc/qncUri.h"

namespace mpl {

namespace {

// A relative path with neither colon nor a segment that begins with a dot: resolving it puts the
// base's directory before it and changes nothing. Tells false for some that would qualify.
bool isPlainRelativePath(std::string_view reference) {
  if (reference.empty()) return false;
  bool atSegmentStart = true;
  for (const char c : reference) {
    if (c == '?' || c == '#' || c == ':' || (atSegmentStart && (c == '.' || c == '/'))) {
      return false;
    }
    atSegmentStart = c == '/';
  }
  return true;
}

}  // namespace

FastString ReferenceURI::resolve(std::string_view reference, std::string_view base) {
  return qnc::URI::resolve(reference, base);
}

ReferenceResolver::ReferenceResolver(std::string_view base) : base_(base) {
  prefix_ = ReferenceURI::resolve("x", base).str();
  prefix_.pop_back();
}

void ReferenceResolver::resolve(std::string_view reference, std::string& out) const {
  if (isPlainRelativePath(reference)) {
    out.assign(prefix_).append(reference);
  } else {
    out = ReferenceURI::resolve(reference, base_).str();
  }
}

}  // namespace mpl
