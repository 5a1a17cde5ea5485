#pragma once

// The simulator on its own thread (or the test's run loop), and the core
// kit's configuration that reaches it and trusts its CA.
//
//   qel::testing::Simulator simulator;  // no periodic updates: the test ticks
//   qel::core::QELConfiguration::set(simulator.configuration());
//   simulator.tick();

#include <cabinsim/LocalServer.h>

#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>

namespace qel::testing {

class Simulator : public cabinsim::LocalServer {
 public:
  // Options without periodic updates.
  static cabinsim::ServerOptions ticked(cabinsim::ServerOptions options = {}) {
    options.intervalSeconds = 3600;
    return options;
  }

  explicit Simulator(cabinsim::ServerOptions options = ticked(), bool ownThread = true)
      : LocalServer(std::move(options), ownThread ? nullptr : &RunLoop::current().context()) {
    configuration_.host = host();
    configuration_.port = port();
    configuration_.caFile = caFile();
  }

  bool eventChannelUp() {
    return call([](cabinsim::Server& server) { return server.eventClientCount() == 1; });
  }
  core::QELConfiguration& configuration() { return configuration_; }

 private:
  core::QELConfiguration configuration_;
};

}  // namespace qel::testing
