#pragma once

#include <cstdint>
#include <string>

#include "tests/support/FaultServer.h"

namespace qntest {

// What is sent for one request: the head, and a body of content or text.
struct FaultAnswer {
  std::string head;
  std::string text;        // the body, unless ofContent
  bool ofContent = false;  // the body is content of the resource from `start`
  uint64_t start = 0;
  uint64_t length = 0;  // of the body
  int status = 0;
  bool chunked = false;
  bool closes = false;  // the head says, or the framing demands, that the connection ends
};

// The answer of a server that follows RFC 9110, changed as the fault says. `resource` null: 404.
FaultAnswer composeAnswer(const FaultRequest& request, const FaultResource* resource,
                          const Fault& fault);

// The validator of a resource, as in its ETag field.
std::string entityTag(const std::string& path, const FaultResource& resource);

}  // namespace qntest
