// cabin-sim: a stand-in for the aircraft's cabin server (map data, map
// images, event WebSocket), with faults on demand. See --help.

#include "cabinsim/CommandLine.h"
#include "cabinsim/Server.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>

int main(int argc, char** argv) {
  std::string error;
  const auto line = cabinsim::parseCommandLine(std::vector<std::string>(argv + 1, argv + argc), error);
  if (!line) {
    std::cerr << "cabin-sim: " << error << "\n(cabin-sim --help lists the options)\n";
    return 2;
  }
  if (line->help) {
    std::cout << cabinsim::usageText();
    return 0;
  }

  boost::asio::io_context ioc(1);
  cabinsim::Server server(ioc, line->options);
  std::uint16_t port = 0;
  try {
    port = server.start();
  } catch (const std::exception& e) {
    std::cerr << "cabin-sim: cannot start: " << e.what() << "\n";
    return 1;
  }

  boost::asio::signal_set signals(ioc, SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& ec, int signal) {
    if (ec) {
      return;
    }
    // SIGTERM is how a service manager restarts a server: the event clients
    // are told, and come back at once; SIGINT is someone ending it.
    std::cerr << "cabin-sim: signal " << signal << ", stopping\n";
    if (signal == SIGTERM) {
      server.stopForRestart();
    } else {
      server.stop();
    }
  });

  const std::string& host = line->options.host;
  const bool ipv6 = host.find(':') != std::string::npos;
  std::cout << "listening https://" << (ipv6 ? "[" + host + "]" : host) << ":" << port << std::endl;

  ioc.run();
  return 0;
}
