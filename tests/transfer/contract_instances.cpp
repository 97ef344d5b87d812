// The implementations that the contract suites run against.

#include "tests/transfer/ContractSuite.h"
#include "tests/transfer/ScriptedHarness.h"

namespace qntest {

std::vector<Implementation> realImplementations() {
  return {{"InProcess", [] { return std::make_unique<TransferHarness>(); }},
          {"Service", [] { return std::make_unique<ServiceHarness>(); }}};
}

namespace {

std::unique_ptr<ContractHarness> scripted() {
  return std::make_unique<ScriptedHarness>();
}

INSTANTIATE_TEST_SUITE_P(Scripted, SessionContract,
                         testing::Values(Implementation{"Scripted", scripted}), implementationName);
INSTANTIATE_TEST_SUITE_P(Real, SessionContract, testing::ValuesIn(realImplementations()),
                         implementationName);
INSTANTIATE_TEST_SUITE_P(Real, TransferContract, testing::ValuesIn(realImplementations()),
                         implementationName);

}  // namespace
}  // namespace qntest
