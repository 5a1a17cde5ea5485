// Cost at rest: what a started, connected service costs while nothing
// happens (CPU time, run-loop callouts, context switches), against a polling
// client over the same time; and resident memory after many updates against
// after a few.
//
// The service is idled three ways: on this thread's loop run with run(), the
// same with runFor(), and on the hosting thread of QELBroadcastMapsHost. The
// host gets a process of its own (forked before anything else exists), since
// one process serves one loop thread; there the simulator runs on the main
// thread and the counts are the hosting thread's alone.
//
// The simulator runs in this process, so its side of the event channel's
// keep-alive pings is counted too (in both measurements at rest). The
// pictures are 160x120 so that ten thousand updates take little time.
//
//   cost_at_rest [--rest-seconds S] [--updates N] [--verbose]

#include "LoopbackCabin.h"

#include <QELMaps/QELBroadcastMapsHost.h>

#include <dirent.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

using namespace qelbench;

namespace {

struct Options {
  int restSeconds = 60;
  int updates = 10000;
  bool verbose = false;
};

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--verbose") {
      options.verbose = true;
    } else if (flag == "--rest-seconds" && i + 1 < argc) {
      options.restSeconds = std::atoi(argv[++i]);
    } else if (flag == "--updates" && i + 1 < argc) {
      options.updates = std::atoi(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: cost_at_rest [--rest-seconds S] [--updates N] [--verbose]\n");
      std::exit(2);
    }
  }
  return options;
}

void require(bool condition, const char* what) {
  if (!condition) {
    std::printf("cost_at_rest: %s\n", what);
    std::exit(1);
  }
}

struct Usage {
  double cpuMs = 0;
  std::uint64_t callouts = 0;
  long voluntarySwitches = 0;

  static Usage now() {
    rusage r{};
    ::getrusage(RUSAGE_SELF, &r);
    auto ms = [](const timeval& t) { return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3; };
    return {ms(r.ru_utime) + ms(r.ru_stime), qel::RunLoop::current().calloutCount(), r.ru_nvcsw};
  }
  Usage operator-(const Usage& o) const {
    return {cpuMs - o.cpuMs, callouts - o.callouts, voluntarySwitches - o.voluntarySwitches};
  }
};

enum class Run { withScheduledStop, forDuration };

// Idles the loop the two ways an application runs it: run() ended by a
// scheduled stop, or runFor(). Neither may add wakeups of its own.
Usage idle(std::chrono::seconds duration, Run how = Run::withScheduledStop) {
  auto& loop = qel::RunLoop::current();
  const auto before = Usage::now();
  if (how == Run::forDuration) {
    loop.runFor(duration);
  } else {
    const auto stop = loop.schedule(duration, [&loop] { loop.stop(); });
    loop.run();
  }
  return Usage::now() - before;
}

void printIdle(const char* name, const Usage& u, int seconds) {
  std::printf("%-38s cpu %8.1f ms (%.3f%% of one core)  callouts %6llu  voluntary switches %6ld\n", name, u.cpuMs,
              u.cpuMs / (10.0 * seconds), static_cast<unsigned long long>(u.callouts), u.voluntarySwitches);
}

// Every thread of this process but the calling one: CPU time from the
// scheduler's nanosecond account, and the times each slept and was woken.
Usage otherThreads() {
  Usage total;
  const std::string self = std::to_string(::gettid());
  DIR* tasks = ::opendir("/proc/self/task");
  require(tasks != nullptr, "cannot list the threads");
  while (const dirent* entry = ::readdir(tasks)) {
    const std::string tid = entry->d_name;
    if (tid == "." || tid == ".." || tid == self) continue;
    std::ifstream schedstat("/proc/self/task/" + tid + "/schedstat");
    double onCpuNs = 0;
    schedstat >> onCpuNs;
    total.cpuMs += onCpuNs / 1e6;
    std::ifstream status("/proc/self/task/" + tid + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("voluntary_ctxt_switches:")) total.voluntarySwitches += std::atol(line.c_str() + 24);
    }
  }
  ::closedir(tasks);
  return total;
}

// The started service on the host's thread, at rest, while this thread runs
// the simulator. Returns the row to print.
std::string hostedAtRest(const Options& options) {
  auto& loop = qel::RunLoop::current();
  LoopbackCabin cabin({{160, 120}}, options.verbose ? 4 : 1);
  auto& server = cabin.server();
  auto host = qel::QELBroadcastMapsHost::create({});
  require(host != nullptr, "no host");
  host->setCurrentResolutionWithCGSize({160, 120});
  host->start();
  require(loop.runUntil([&] { return host->snapshot()->image && server.eventClientCount() == 1; }, 30s),
          "the hosted service never got its first picture over a connected event channel");
  loop.runFor(1s);
  const auto before = otherThreads();
  idle(std::chrono::seconds(options.restSeconds));
  const auto u = otherThreads() - before;
  char row[256];
  std::snprintf(row, sizeof row, "%-38s cpu %8.1f ms (%.3f%% of one core)  callouts %6s  voluntary switches %6ld\n",
                "started service, hosting thread", u.cpuMs, u.cpuMs / (10.0 * options.restSeconds), "-",
                u.voluntarySwitches);
  return row;
}

// Runs hostedAtRest() in a child process made now, while this one has no
// threads; the row comes back through a pipe once the child is done.
std::string hostedAtRestInChild(const Options& options) {
  int fds[2];
  require(::pipe(fds) == 0, "no pipe");
  const pid_t child = ::fork();
  require(child >= 0, "cannot fork");
  if (child == 0) {
    ::close(fds[0]);
    const auto row = hostedAtRest(options);
    require(::write(fds[1], row.data(), row.size()) == static_cast<ssize_t>(row.size()), "cannot write the row");
    std::_Exit(0);
  }
  ::close(fds[1]);
  std::string row;
  char buffer[256];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) row.append(buffer, static_cast<std::size_t>(n));
  ::close(fds[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  require(WIFEXITED(status) && WEXITSTATUS(status) == 0 && !row.empty(), "the hosted measurement failed");
  return row;
}

struct Memory {
  long rssKiB = 0;
  std::size_t heapInUse = 0;

  static Memory now() {
    Memory m;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("VmRSS:")) m.rssKiB = std::atol(line.c_str() + 6);
    }
    m.heapInUse = mallinfo2().uordblks;
    return m;
  }
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  if (!options.verbose) silenceStderr();
  std::fflush(stdout);
  const auto hostedRow = hostedAtRestInChild(options);
  auto& loop = qel::RunLoop::current();
  LoopbackCabin cabin({{160, 120}}, options.verbose ? 4 : 1);
  auto& server = cabin.server();
  const auto rest = std::chrono::seconds(options.restSeconds);

  // The polling client alone first, before any event channel exists.
  {
    std::uint64_t pictures = 0;
    PollingClient poller("160x120", 1s, [&](const std::string&, std::shared_ptr<const qel::Image>) { ++pictures; });
    poller.start();
    require(loop.runUntil([&] { return pictures == 1; }, 30s), "the polling client got no picture");
    loop.runFor(500ms);
    const auto polling = idle(rest);
    poller.stop();
    printIdle("polling client every 1 s, no updates", polling, options.restSeconds);
  }
  loop.runFor(1s);

  auto maps = qel::QELBroadcastMapsV1::create();
  require(maps != nullptr, "no service");
  maps->setCurrentResolutionWithCGSize({160, 120});
  auto watcher = ImageWatcher::watch(maps);
  maps->start();
  require(loop.runUntil([&] { return watcher->pictures >= 1 && server.eventClientCount() == 1; }, 30s),
          "the service never got its first picture over a connected event channel");
  loop.runFor(1s);
  const auto atRest = idle(rest);
  printIdle("started service, no updates, run()", atRest, options.restSeconds);
  const auto atRestRunFor = idle(rest, Run::forDuration);
  printIdle("started service, no updates, runFor()", atRestRunFor, options.restSeconds);
  std::fputs(hostedRow.c_str(), stdout);

  // Memory: one update at a time, each until its picture arrived.
  auto update = [&] {
    const auto before = watcher->pictures;
    server.tick();
    require(loop.runUntil([&] { return watcher->pictures > before; }, 10s), "an update brought no picture");
  };
  const int early = std::min(100, options.updates);
  for (int i = 0; i < early; ++i) update();
  const auto after100 = Memory::now();
  const auto started = Clock::now();
  for (int i = early; i < options.updates; ++i) {
    update();
    if ((i + 1) % 1000 == 0) {
      const auto m = Memory::now();
      std::printf("  after %5d updates: VmRSS %6ld KiB, heap in use %8zu B\n", i + 1, m.rssKiB, m.heapInUse);
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  const auto afterAll = Memory::now();
  std::printf("after %5d updates: VmRSS %6ld KiB, heap in use %9zu B\n", early, after100.rssKiB,
              after100.heapInUse);
  std::printf("after %5d updates: VmRSS %6ld KiB, heap in use %9zu B  (%.1f updates/s)\n", options.updates,
              afterAll.rssKiB, afterAll.heapInUse, (options.updates - early) / seconds);
  std::printf("growth: VmRSS %+ld KiB (x%.3f), heap in use %+lld B\n", afterAll.rssKiB - after100.rssKiB,
              static_cast<double>(afterAll.rssKiB) / static_cast<double>(after100.rssKiB),
              static_cast<long long>(afterAll.heapInUse) - static_cast<long long>(after100.heapInUse));
  maps->stop();
  return 0;
}
