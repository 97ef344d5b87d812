// The main of every test program. A process that a test starts (the service, the program, what the
// service launches) may be detached, with its standard error at /dev/null: what a sanitizer has to
// say there goes to a directory of this program's and fails the test during which it was said.

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/TempDirectory.h"

namespace {

class SanitizerReports final : public testing::EmptyTestEventListener {
 public:
  SanitizerReports() {
    // An abort is reported too: a service that fails an assertion is soon another service.
    for (const char* variable : {"ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
      const char* before = std::getenv(variable);
      const std::string options = std::string(before ? before : "") +
                                  ":handle_abort=1:log_path=" + directory_.path("report");
      ::setenv(variable, options.c_str(), 1);
    }
  }

  void OnTestEnd(const testing::TestInfo&) override {
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      const std::string report = qntest::readFile(entry.path()).value_or("");
      std::filesystem::remove(entry.path());
      ADD_FAILURE() << "Said by a process of this test:\n" << report;
    }
  }

 private:
  const qntest::TempDirectory directory_;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new SanitizerReports);
  return RUN_ALL_TESTS();
}
