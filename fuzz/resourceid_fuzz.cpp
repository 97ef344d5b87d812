// Any bytes as the description of a task: never refused, and what was understood survives being
// written and read.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "engine/QNResourceId.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto id = QNResourceId::resourceIdWithJSONString(text);
  const std::string written = id->serializeToJSON();
  const auto again = QNResourceId::resourceIdWithJSONString(written);
  const bool same =
      again->manifestURL() == id->manifestURL() && again->qualityId() == id->qualityId() &&
      again->resourceIndex() == id->resourceIndex() && again->status() == id->status();
  if (!same || again->serializeToJSON() != written) {
    std::fprintf(stderr, "not the same identity:\n%s\n", written.c_str());
    std::abort();
  }
  return 0;
}
