// The implementations that the contract suites run against.

#include <unistd.h>

#include "tests/support/TempDirectory.h"
#include "tests/transfer/ContractSuite.h"
#include "tests/transfer/ScriptedHarness.h"

namespace qntest {
namespace {

std::unique_ptr<ContractHarness> scripted() {
  return std::make_unique<ScriptedHarness>();
}
std::unique_ptr<ContractHarness> inProcess() {
  return std::make_unique<TransferHarness>();
}
std::unique_ptr<ContractHarness> service() {
  return std::make_unique<ServiceHarness>();
}

const auto kName = [](const auto& info) { return info.param.name; };

INSTANTIATE_TEST_SUITE_P(Scripted, SessionContract,
                         testing::Values(Implementation{"Scripted", scripted}), kName);
INSTANTIATE_TEST_SUITE_P(InProcess, SessionContract,
                         testing::Values(Implementation{"InProcess", inProcess}), kName);
INSTANTIATE_TEST_SUITE_P(Service, SessionContract,
                         testing::Values(Implementation{"Service", service}), kName);
INSTANTIATE_TEST_SUITE_P(InProcess, TransferContract,
                         testing::Values(Implementation{"InProcess", inProcess}), kName);
INSTANTIATE_TEST_SUITE_P(Service, TransferContract,
                         testing::Values(Implementation{"Service", service}), kName);

}  // namespace
}  // namespace qntest
