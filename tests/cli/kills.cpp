// A download whose program is killed again and again and started again with the same command.

#include <filesystem>
#include <iostream>
#include <set>

#include <gtest/gtest.h>
#include <signal.h>

#include "tests/cli/ProgramRunner.h"
#include "tests/cli/ServedMovie.h"
#include "tests/support/RandomKills.h"

namespace qntest {
namespace {

constexpr unsigned kKills = 10;

// Names of the files of a movie that are in place.
std::set<std::string> inPlace(const ProgramRunner& program) {
  std::set<std::string> names;
  if (!std::filesystem::exists(program.root())) return names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(program.root()))
    names.insert(entry.path().filename());
  return names;
}

// What the server saw of one launch: nothing that lay there before, and nothing twice.
void expectOnlyWhatWasMissing(const std::vector<FaultRequest>& requests,
                              const std::set<std::string>& before) {
  std::set<std::string> asked;
  for (const auto& request : requests) {
    const std::string name = std::filesystem::path(request.path).filename();
    EXPECT_FALSE(before.contains(name)) << "it was in place: " << request.path;
    EXPECT_TRUE(asked.insert(name).second) << "twice in one launch: " << request.path;
  }
}

TEST(DownloadKills, TheSameCommandCompletesTheMovieAfterKillsAtRandomInstants) {
  RandomKills random(kKills);
  FaultServer server;
  ServedMovie::Again again;
  unsigned killed = 0;
  int movies = 0;
  for (; killed < random.count() && !testing::Test::HasFailure(); ++movies) {
    const ServedMovie movie(server, "movie" + std::to_string(movies));
    const ProgramRunner program;
    for (bool complete = false; !complete && !testing::Test::HasFailure();) {
      SCOPED_TRACE("kill " + std::to_string(killed));
      const auto before = inPlace(program);
      const size_t seen = server.requestCount();
      const auto process = program.startDownload(movie.url());
      if (killed < random.count()) {
        // While it starts, or in the middle.
        if (killed % 4 != 3) static_cast<void>(server.waitForRequests("", seen + 1, 5));
        random.sleepBelow(killed % 4 == 3 ? 100 : 400);
        process->signal(SIGKILL);
      }
      const Ended ended = process->wait();
      complete = ended.code == 0;
      EXPECT_TRUE(complete || ended.code == -SIGKILL) << ended.code << ": " << ended.err;
      killed += ended.code == -SIGKILL;
      EXPECT_TRUE(server.waitForNoConnections(30));
      const auto requests = server.requests();
      expectOnlyWhatWasMissing(
          {requests.begin() + static_cast<std::ptrdiff_t>(seen), requests.end()}, before);
    }
    movie.expectWhole(program.onlyDownload());
    const auto repeated = movie.again();
    again.requests += repeated.requests;
    again.bytes += repeated.bytes;
  }
  std::cout << killed << " kills, " << movies << " movies; " << again.requests
            << " requests again, " << again.bytes << " bytes again" << std::endl;
}

}  // namespace
}  // namespace qntest
