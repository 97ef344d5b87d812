#pragma once

#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/ExitCode.h"
#include "platform/JSON.h"

namespace cli {

// Why a command ends early: its exit code and one line for a person (which may still hold text from
// outside).
class Failure : public std::exception {
 public:
  Failure(ExitCode code, std::string message, std::vector<std::string> details = {})
      : code_(code), message_(std::move(message)), details_(std::move(details)) {}

  const char* what() const noexcept override { return message_.c_str(); }
  ExitCode code() const { return code_; }
  const std::string& message() const { return message_; }
  // Further lines, for instance what could have been chosen.
  const std::vector<std::string>& details() const { return details_; }
  // What `--json` prints instead of a result; null: {"error": message}.
  const platform::JSON& result() const { return result_; }
  Failure&& withResult(platform::JSON result) && {
    result_ = std::move(result);
    return std::move(*this);
  }

 private:
  ExitCode code_;
  std::string message_;
  std::vector<std::string> details_;
  platform::JSON result_;
};

}  // namespace cli
