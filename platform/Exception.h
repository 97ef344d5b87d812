#pragma once

#include <exception>
#include <string>

#include "platform/Error.h"
#include "platform/Export.h"

namespace platform {

QN_EXPORT extern const char* const
    NSInternalInconsistencyException;  // "NSInternalInconsistencyException"

// "You misused me", "this manifest is not usable", or, under the name
// NSInternalInconsistencyException, a broken promise of this program itself. `what()` is the
// reason.
class QN_EXPORT Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason, Dictionary userInfo = {});
  ~Exception() override;
  Exception(const Exception&) = default;
  Exception& operator=(const Exception&) = default;

  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  const Dictionary& userInfo() const { return userInfo_; }
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  Dictionary userInfo_;
};

// Throws an Exception named NSInternalInconsistencyException with the fixed text as reason unless
// `condition` holds. For this program's own promises only, never for input; checked in every build.
QN_EXPORT void assertThat(bool condition, const char* text);

}  // namespace platform
