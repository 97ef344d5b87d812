#include "tests/support/FakeNetworkManager.h"

#include <array>
#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qntest {
namespace {

[[noreturn]] void fail(const std::string& why) {
  throw std::runtime_error("fake NetworkManager: " + why +
                           " (needs python3-dbusmock and dbus-daemon)");
}

}  // namespace

FakeNetworkManager::FakeNetworkManager() {
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) fail("no pipe");
  process_ = fork();
  if (process_ < 0) fail("no process");
  if (process_ == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    execl(QN_TEST_PYTHON, QN_TEST_PYTHON, QN_TEST_SUPPORT "/network_manager.py",
          directory_.path().c_str(), nullptr);
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  commands_ = fdopen(in[1], "w");
  answers_ = fdopen(out[0], "r");
  if (_answer() != "ready") fail("did not start");
}

FakeNetworkManager::~FakeNetworkManager() {
  fclose(commands_);  // the script cleans up and ends
  int status = 0;
  waitpid(process_, &status, 0);
  fclose(answers_);
}

void FakeNetworkManager::appear(uint32_t state, uint32_t connectivity, uint32_t metered) {
  _command("appear " + std::to_string(state) + " " + std::to_string(connectivity) + " " +
           std::to_string(metered));
}

void FakeNetworkManager::vanish() {
  _command("vanish");
}

void FakeNetworkManager::stopBus() {
  _command("stop-bus");
}

void FakeNetworkManager::_set(const char* property, uint32_t value) {
  _command("set " + std::string(property) + " " + std::to_string(value));
}

void FakeNetworkManager::_command(const std::string& line) {
  std::fprintf(commands_, "%s\n", line.c_str());
  std::fflush(commands_);
  const std::string answer = _answer();
  if (answer != "done") fail(line + ": " + answer);
}

std::string FakeNetworkManager::_answer() {
  std::array<char, 1024> line{};
  if (!std::fgets(line.data(), line.size(), answers_)) return "ended";
  std::string answer(line.data());
  if (answer.ends_with('\n')) answer.pop_back();
  return answer;
}

}  // namespace qntest
