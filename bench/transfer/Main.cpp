// Compares whole processes that fetch the same files from the same local server: a bare
// libcurl-multi loop (the floor; with "+mpd" it asks for the manifest first, as the program has
// to, with "+xxh" it hashes what it writes, too), the transfer session under the calls that a
// download makes, the same through the service, and the program itself when its path is given,
// maybe beside another build of it. Wall time, CPU time and peak memory, best of some runs. The
// service counts with its start; its CPU time is added to its client's, the memory is its own.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/transfer/Client.h"
#include "bench/transfer/Server.h"
#include "bench/transfer/Service.h"

namespace {

using namespace qnbench;
namespace fs = std::filesystem;

struct Case {
  const char* name;
  int qualities;
  int segments;
  long bytes;
  bool tls;
  int roundTripMs;
  double wallTarget;
};

constexpr Case kCases[] = {
    {"4000 x 64 KiB", 1, 4000, 64 << 10, false, 0, 1.15},
    {"4 x 512 MiB", 1, 4, 512l << 20, false, 0, 1.05},
    {"16 x 250 x 256 KiB", 16, 250, 256 << 10, false, 0, 1.05},
    {"4000 x 64 KiB, TLS", 1, 4000, 64 << 10, true, 0, 1.15},
    {"4 x 512 MiB, TLS", 1, 4, 512l << 20, true, 0, 1.05},
    {"200 x 64 KiB, 20 ms", 1, 200, 64 << 10, false, 20, 1.02},
    {"200 x 64 KiB, 80 ms", 1, 200, 64 << 10, false, 80, 1.02},
};

constexpr Case kSmallest[] = {
    {"32 x 64 KiB", 2, 16, 64 << 10, false, 0, 0},
    {"8 x 4 KiB, 4 ms", 1, 8, 4 << 10, false, 4, 0},
};

struct Result {
  double wall = 1e9;
  double cpu = 1e9;
  long peakKiB = 0;
  bool ok = true;
};

struct Child {
  pid_t pid = -1;
  int port = 0;
};

Child startServer(const std::vector<std::string>& arguments) {
  int fds[2];
  if (::pipe(fds) != 0) std::exit(1);
  Child child;
  child.pid = ::fork();
  if (child.pid == 0) {
    ::close(fds[0]);
    if (arguments[0] == "delay") {
      delay(static_cast<uint16_t>(std::stoi(arguments[1])), std::stoi(arguments[2]), fds[1]);
    }
    serve(arguments.size() > 1 ? ServerOptions{arguments[1], arguments[2]} : ServerOptions{},
          fds[1]);
  }
  ::close(fds[1]);
  char text[16] = {};
  static_cast<void>(!::read(fds[0], text, sizeof text - 1));
  ::close(fds[0]);
  child.port = std::atoi(text);
  return child;
}

void stopServer(const Child& child) {
  ::kill(child.pid, SIGKILL);
  ::waitpid(child.pid, nullptr, 0);
}

Result measure(const std::vector<std::string>& command) {
  std::vector<char*> argv;
  for (const auto& argument : command)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  Result result;
  result.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  result.cpu = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  result.peakKiB = usage.ru_maxrss;
  result.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return result;
}

Result measureMode(const std::string& mode, const std::vector<std::string>& command) {
  Result result = measure(command);
  if (mode != "service") return result;
  const ServiceUse use = stopService();
  result.cpu += use.cpu;
  result.peakKiB = use.memory.peakKiB;
  result.ok = result.ok && use.ok;
  return result;
}

struct Settings {
  std::string self;
  std::string program;  // qnmovie, may be empty
  std::string other;    // another build of it, may be empty
  std::string work;     // on tmpfs
  std::string certificate, key;
  std::string only;
  std::string what;  // empty: all
  int runs = 5;
  long held = 0;  // tasks

  // A service of this run's own, which becomes a child of this process.
  void prepareService() const {
    ::setenv("XDG_RUNTIME_DIR", (work + "/run").c_str(), 1);
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  }
};

std::vector<std::string> commandOf(const std::string& mode, const Case& c, const Settings& s,
                                   const std::string& base) {
  const std::string out = s.work + "/out";
  if (mode == "program" || mode == "other") {
    return {mode == "other" ? s.other : s.program,
            "download",
            "--quiet",
            "--all",
            "--root",
            out,
            base + qnbench::manifestPath(c.qualities, c.segments, c.bytes)};
  }
  return {s.self,
          mode,
          base,
          out,
          s.work + "/state",
          std::to_string(c.qualities),
          std::to_string(c.segments),
          std::to_string(c.bytes),
          c.tls ? s.certificate : ""};
}

// What a program has no option for, it takes from its environment.
void setEnvironment(const Case& c, const Settings& s) {
  ::setenv("QN_STATE_DIR", (s.work + "/state").c_str(), 1);
  ::setenv("QN_CA_FILE", c.tls ? s.certificate.c_str() : "", 1);
}

bool runCase(const Case& c, const Settings& s) {
  std::vector<std::string> arguments{"server"};
  if (c.tls) arguments = {"server", s.certificate, s.key};
  const Child server = startServer(arguments);
  Child proxy;
  int port = server.port;
  if (c.roundTripMs > 0) {
    proxy = startServer({"delay", std::to_string(port), std::to_string(c.roundTripMs)});
    port = proxy.port;
  }
  const std::string base =
      std::string(c.tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(port);
  setEnvironment(c, s);
  std::vector<std::string> modes{"floor", "floor+mpd", "floor+xxh", "session", "service"};
  if (!s.program.empty()) modes.push_back("program");
  if (!s.other.empty()) modes.push_back("other");
  if (!s.what.empty()) std::erase_if(modes, [&](const auto& mode) { return mode != s.what; });
  std::vector<Result> best(modes.size());
  for (int run = 0; run < s.runs; ++run) {
    for (size_t i = 0; i < modes.size(); ++i) {
      fs::create_directories(s.work + "/out");
      const Result result = measureMode(modes[i], commandOf(modes[i], c, s, base));
      best[i].wall = std::min(best[i].wall, result.wall);
      best[i].cpu = std::min(best[i].cpu, result.cpu);
      best[i].peakKiB = std::max(best[i].peakKiB, result.peakKiB);
      best[i].ok = best[i].ok && result.ok;
      fs::remove_all(s.work + "/out");
      fs::remove_all(s.work + "/state");
    }
  }
  stopServer(server);
  if (proxy.pid > 0) stopServer(proxy);
  const double files = double(c.qualities) * c.segments;
  bool ok = true;
  for (size_t i = 0; i < modes.size(); ++i) {
    std::printf(
        "| %-20s | %-9s | %7.3f | %5.2f | %5.2f | %7.3f | %5.2f | %5.2f | %8.1f | %8.1f | %s\n",
        c.name, modes[i].c_str(), best[i].wall, best[i].wall / best[0].wall,
        best[i].wall / best[1 % modes.size()].wall, best[i].cpu, best[i].cpu / best[0].cpu,
        best[i].cpu / best[1 % modes.size()].cpu, double(best[i].peakKiB) / 1024,
        (best[i].cpu - best[0].cpu) / files * 1e6, best[i].ok ? "" : "FAILED");
    if (modes[i] == "service" && i > 0)
      std::printf("  service : session, wall %.2f\n", best[i].wall / best[i - 1].wall);
    std::fflush(stdout);
    ok = ok && best[i].ok;
  }
  return ok;
}

int runHeldCases(const Settings& s) {
  s.prepareService();
  ::setenv("QN_STATE_DIR", (s.work + "/state").c_str(), 1);
  std::printf(
      "| tasks held        | peak MiB | anonymous| allowed  | ratio |\n"
      "|-------------------|----------|----------|----------|-------|\n");
  const Child server = startServer({"server"});
  bool ok = true;
  for (const long count : {0L, s.held}) {
    for (const char* state : {"suspended", "queued"}) {
      if (count == 0 && state[0] == 'q') continue;
      std::fflush(stdout);
      ok = measure({s.self, "held", "http://127.0.0.1:" + std::to_string(server.port), s.work,
                    std::to_string(count), state})
               .ok &&
           ok;
      ok = stopService().ok && ok;
      fs::remove_all(s.work + "/state");
    }
  }
  stopServer(server);
  return ok ? 0 : 1;
}

int runAll(const Settings& s, std::span<const Case> cases) {
  s.prepareService();
  std::printf("%ld CPUs, best of %d runs, output on %s\n", ::sysconf(_SC_NPROCESSORS_ONLN), s.runs,
              s.work.c_str());
  std::printf(
      "| case                 | what      |  wall s | ratio |  +mpd |   CPU s | ratio |  +mpd | "
      "peak "
      "MiB | us/file  |\n");
  std::printf(
      "|----------------------|-----------|--------:|------:|------:|--------:|------:|------:|"
      "---------:|---------:|\n");
  bool ok = true;
  for (const auto& c : cases) {
    if (!s.only.empty() && std::string(c.name).find(s.only) == std::string::npos) continue;
    if (c.tls && s.certificate.empty()) continue;
    ok = runCase(c, s) && ok;
  }
  return ok ? 0 : 1;
}

// Whether the programs still work, not how fast.
int check(Settings s) {
  std::string work = fs::temp_directory_path() / "bench-transfer-XXXXXX";
  if (!::mkdtemp(work.data())) return 1;
  s.work = work;
  s.runs = 1;
  s.held = 10;
  const int result = runAll(s, kSmallest) + runHeldCases(s);
  fs::remove_all(work);
  return result;
}

}  // namespace

std::string qnbench::manifestPath(int qualities, int segments, long bytes) {
  return "/mpd/" + std::to_string(qualities) + "/" + std::to_string(segments) + "/" +
         std::to_string(bytes);
}

// bench_transfer [--program PATH] [--other PATH] [--runs N] [--only TEXT] [--what NAME] [--tls CERT
// KEY] [--held TASKS] WORKDIR
int main(int argc, char** argv) {
  const std::vector<std::string> a(argv + 1, argv + argc);
  if (a.size() == 5 && a[0] == "held")
    return runHeld(a[1], a[2], std::stol(a[3]), a[4] == "queued");
  if (a.size() == 8 && (a[0].starts_with("floor") || a[0] == "session" || a[0] == "service")) {
    ClientOptions options{a[1],           a[2], a[3], a[7], std::stoi(a[4]), std::stoi(a[5]),
                          std::stol(a[6])};
    options.manifestFirst = a[0] != "floor";
    options.hashes = a[0] == "floor+xxh";
    options.useService = a[0] == "service";
    return a[0].starts_with("floor") ? runFloor(options) : runSession(options);
  }
  Settings settings;
  settings.self = fs::read_symlink("/proc/self/exe");
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == "--program")
      settings.program = fs::absolute(a.at(++i));
    else if (a[i] == "--other")
      settings.other = fs::absolute(a.at(++i));
    else if (a[i] == "--runs")
      settings.runs = std::stoi(a.at(++i));
    else if (a[i] == "--held")
      settings.held = std::stol(a.at(++i));
    else if (a[i] == "--what")
      settings.what = a.at(++i);
    else if (a[i] == "--only")
      settings.only = a.at(++i);
    else if (a[i] == "--tls")
      settings.certificate = fs::absolute(a.at(i + 1)), settings.key = fs::absolute(a.at(i + 2)),
      i += 2;
    else
      settings.work = fs::absolute(a[i]);
  }
  if (!a.empty() && a[0] == "--check") return check(settings);
  if (settings.work.empty()) {
    std::fprintf(stderr,
                 "usage: bench_transfer [--program PATH] [--other PATH] [--runs N] [--only TEXT] "
                 "[--what NAME] "
                 "[--tls CERT KEY] "
                 "[--held TASKS] WORKDIR\n");
    return 2;
  }
  return settings.held > 0 ? runHeldCases(settings) : runAll(settings, kCases);
}
