#include "platform/Exception.h"

#include <utility>

namespace platform {

const char* const NSInternalInconsistencyException = "NSInternalInconsistencyException";

Exception::Exception(std::string name, std::string reason, Dictionary userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)) {}

Exception::~Exception() = default;

void assertThat(bool condition, const char* text) {
  if (!condition) throw Exception(NSInternalInconsistencyException, text);
}

}  // namespace platform
