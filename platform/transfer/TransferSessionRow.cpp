#include <climits>
#include <utility>

#include <unistd.h>

#include "platform/JSON.h"
#include "platform/transfer/TransferStoreRows.h"

namespace platform {
namespace {

// {"argv":["…"],"environment":{"NAME":"…"},"workingDirectory":"…"}
std::string launchCommandText(const LaunchCommand& command) {
  JSON argv = JSON::array();
  for (const auto& argument : command.argv)
    argv.append(argument);
  JSON environment = JSON::object();
  for (const auto& [name, value] : command.environment)
    environment.set(name, value);
  JSON text = JSON::object();
  text.set("argv", std::move(argv));
  text.set("environment", std::move(environment));
  text.set("workingDirectory", command.workingDirectory);
  return text.dump();
}

std::optional<LaunchCommand> launchCommandOf(const std::string& text) {
  const auto json = JSON::parse(text);
  const JSON* const argv = json ? json->find("argv") : nullptr;
  if (!argv) return std::nullopt;
  LaunchCommand command;
  for (const auto& argument : argv->items())
    command.argv.push_back(argument.string().value_or(""));
  if (const JSON* const environment = json->find("environment")) {
    for (const auto& [name, value] : environment->members())
      command.environment[name] = value.string().value_or("");
  }
  const JSON* const directory = json->find("workingDirectory");
  command.workingDirectory = directory ? directory->string().value_or("") : "";
  return command;
}

std::string pathOfThisProgram() {
  char path[PATH_MAX];
  const auto length = ::readlink("/proc/self/exe", path, sizeof path);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : "";
}

}  // namespace

const char* const kSessionSelect =
    "SELECT identifier, application, partial_directory, connections_per_host, transfers, "
    "bytes_per_second, connect_timeout_ms, stall_timeout_ms, retry_bound_ms, disk_full_bound_ms, "
    "ca_file, cellular, discretionary, launch_events, launch_command FROM session WHERE id = 1";
const char* const kSessionUpdate =
    "UPDATE session SET application = ?, partial_directory = ?, connections_per_host = ?, "
    "transfers = ?, bytes_per_second = ?, connect_timeout_ms = ?, stall_timeout_ms = ?, "
    "retry_bound_ms = ?, disk_full_bound_ms = ?, ca_file = ?, cellular = ?, discretionary = ?, "
    "launch_events = ?, launch_command = ? WHERE id = 1";

TransferSessionRecord readSessionRow(const TransferRowReader& row) {
  TransferSessionRecord session;
  session.identifier = row.text(0);
  session.application = row.text(1);
  session.partialDirectory = row.text(2);
  auto& options = session.options;
  options.connectionsPerHost = static_cast<int>(row.integer(3));
  options.transfers = static_cast<int>(row.integer(4));
  options.bytesPerSecond = row.integer(5);
  options.connectTimeoutMs = row.integer(6);
  options.stallTimeoutMs = row.integer(7);
  options.retryBoundMs = row.integer(8);
  options.diskFullBoundMs = row.integer(9);
  options.caFile = row.text(10);
  options.allowsCellularAccess = row.integer(11) != 0;
  options.discretionary = row.integer(12) != 0;
  options.sendsLaunchEvents = row.integer(13) != 0;
  if (const auto command = row.optionalText(14)) options.launchCommand = launchCommandOf(*command);
  return session;
}

void bindSession(TransferRowWriter& row, const std::string& partialDirectory,
                 const TransferOptions& options) {
  row.bindCopy(pathOfThisProgram());
  row.bind(partialDirectory);
  row.bind(int64_t{options.connectionsPerHost});
  row.bind(int64_t{options.transfers});
  row.bind(options.bytesPerSecond);
  row.bind(options.connectTimeoutMs);
  row.bind(options.stallTimeoutMs);
  row.bind(options.retryBoundMs);
  row.bind(options.diskFullBoundMs);
  row.bind(options.caFile);
  row.bind(int64_t{options.allowsCellularAccess});
  row.bind(int64_t{options.discretionary});
  row.bind(int64_t{options.sendsLaunchEvents});
  options.launchCommand ? row.bindCopy(launchCommandText(*options.launchCommand)) : row.bindNull();
}

}  // namespace platform
