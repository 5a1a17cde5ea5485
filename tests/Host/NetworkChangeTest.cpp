// A change of the device's network ends the wait for the event channel's
// next attempt. Each test runs in a network namespace of its own (its
// process is the test's alone), where adding an address to the loopback
// device is a real change the kernel announces; without namespaces the
// tests skip, saying so.

#include <QELMaps/QELMaps.h>

#include "../Support/Simulator.h"
#include "../Support/WaitUntil.h"

#include <qel/RunLoop.h>
#include <qel/core/net/NetworkWatcher.h>

#include <gtest/gtest.h>

#include <sched.h>

#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace qel {
namespace {

using namespace std::chrono_literals;

// Moves this process into a network namespace of its own with its loopback
// device up; false where that cannot be done (no privilege, a sandbox).
bool ownNetwork() {
  const auto uid = ::getuid();
  const auto gid = ::getgid();
  if (::unshare(CLONE_NEWNET) != 0) {
    // Unprivileged: a user namespace of our own grants the network one.
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
  }
  return std::system("ip link set lo up") == 0;
}

// `ip` with these arguments, in this process's namespace.
void ip(const std::string& arguments) { ASSERT_EQ(std::system(("ip " + arguments).c_str()), 0) << arguments; }

using testing::waitUntil;

// A burst of changes (an address, then its route) is told once, after it
// settled; a quiet network tells nothing; a destroyed watcher nothing more.
TEST(NetworkWatcherTest, EachBurstOfChangesIsToldOnceAndOnlyWhileWatching) {
  if (!ownNetwork()) GTEST_SKIP() << "no network namespace can be made here";
  auto& loop = RunLoop::current();
  int told = 0;
  auto watcher = core::net::NetworkWatcher::create([&] { ++told; }, 100ms);
  ASSERT_TRUE(watcher);
  loop.runFor(300ms);
  EXPECT_EQ(told, 0) << "told of a change nobody made";

  ip("addr add 10.20.30.40/32 dev lo");
  ip("route add 10.20.31.0/24 dev lo");
  ASSERT_TRUE(loop.runUntil([&] { return told > 0; }, 5s));
  loop.runFor(300ms);
  EXPECT_EQ(told, 1) << "one burst, told more than once";

  ip("addr del 10.20.30.40/32 dev lo");
  ASSERT_TRUE(loop.runUntil([&] { return told > 1; }, 5s));
  watcher.reset();
  ip("addr add 10.20.30.41/32 dev lo");
  loop.runFor(300ms);
  EXPECT_EQ(told, 2) << "told after the watcher was gone";
}

// The host, watching, against the simulator: the event channel is dropped
// and the backoff (an hour here) would keep it away; a new address brings it
// back at once.
TEST(NetworkWatcherTest, AHostWatchingTheNetworkReconnectsAtOnceWhenItChanges) {
  if (!ownNetwork()) GTEST_SKIP() << "no network namespace can be made here";
  testing::Simulator simulator;
  QELBroadcastMapsHost::Options options;
  options.configuration = simulator.configuration();
  options.configuration->reconnect = core::ReconnectPolicy{};
  options.configuration->reconnect->events = {1h, 2.0, 1h, 0.0};
  options.watchNetwork = true;
  auto host = QELBroadcastMapsHost::create(std::move(options));
  ASSERT_TRUE(host);
  host->start();
  ASSERT_TRUE(waitUntil([&] { return simulator.eventChannelUp(); }));

  cabinsim::FaultOptions drops;
  drops.dropEventsEverySeconds = 0.05;
  simulator.call([&](cabinsim::Server& server) { server.setFaults(drops); });
  ASSERT_TRUE(waitUntil([&] {
    return host->snapshot()->status.phase == QELBroadcastMapsStatus::Phase::WaitingToRetry;
  }));
  simulator.call([](cabinsim::Server& server) { server.setFaults({}); });
  const auto status = host->snapshot()->status;
  ASSERT_TRUE(status.nextAttempt);
  EXPECT_GT(*status.nextAttempt - QELBroadcastMapsStatus::Clock::now(), 50min);

  ip("addr add 10.20.30.40/32 dev lo");
  EXPECT_TRUE(waitUntil([&] { return host->snapshot()->status.phase == QELBroadcastMapsStatus::Phase::Live; }))
      << host->snapshot()->status.describe();
}

}  // namespace
}  // namespace qel
