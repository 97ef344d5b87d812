#pragma once

#include <memory>
#include <string>
#include <vector>

namespace qntest {

// A certificate authority of the test run: its key lives as long as the object.
class TestCA {
 public:
  struct Certificate {
    std::string certificatePem;
    std::string keyPem;
  };

  TestCA();
  ~TestCA();
  TestCA(const TestCA&) = delete;
  TestCA& operator=(const TestCA&) = delete;

  std::string pem() const;
  // Writes pem() to a file; what URLSessionConfiguration::caFile takes.
  void writeTo(const std::string& path) const;
  // A server certificate for host names and IPv4 addresses; an expired one ended yesterday.
  Certificate issue(const std::vector<std::string>& names, bool expired = false) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qntest
