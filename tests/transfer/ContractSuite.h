#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/transfer/ContractHarness.h"

namespace qntest {

// One test per promise of platform/URLSession.h, run against every implementation. What only a real
// transfer can show (servers, files, processes) is in TransferContract.
class SessionContract : public testing::TestWithParam<Implementation> {
 protected:
  std::unique_ptr<ContractHarness> harness = GetParam().make();
  Application app{*harness};
};

inline std::string implementationName(const testing::TestParamInfo<Implementation>& info) {
  return info.param.name;
}

// "InProcess" and "Service".
std::vector<Implementation> realImplementations();

// The real implementations only.
class TransferContract : public testing::TestWithParam<Implementation> {
 protected:
  std::unique_ptr<ContractHarness> made = GetParam().make();
  TransferHarness& harness = dynamic_cast<TransferHarness&>(*made);
  FaultServer& server = harness.server();
  Application app{harness};
};

}  // namespace qntest
