#pragma once

#include <boost/asio/io_context.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cabinsim {

struct Resolution {
  int width = 0;
  int height = 0;
  std::string text() const { return std::to_string(width) + "x" + std::to_string(height); }
  friend bool operator==(const Resolution&, const Resolution&) = default;
};

// Misbehaviour on demand, for tests and demos. Zero values switch a fault off.
struct FaultOptions {
  int failRest = 0;                   // the first N map data requests answer 503
  double failRestRate = 0;            // after those, each one answers 503 with this probability
  double failRestForSeconds = 0;      // map data answers 503 for this long after the first request
  int malformedRest = 0;              // the first N map data answers (after failures) are malformed
  double dropEventsEverySeconds = 0;  // close every event connection this often
  int malformedEventsEvery = 0;       // every Nth push is malformed, the kinds in turn
  int failImages = 0;                 // the first N image requests answer 500
  double failImagesRate = 0;          // after those, each one answers 500 with this probability
  int delayImagesMs = 0;              // every image answer waits this long
  bool nonImageBody = false;          // image requests answer 200 with text instead of a PNG
  std::string imageHost;              // "src" becomes this prefix + the path (foreign-host tests)
};

struct ServerOptions {
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;             // 0: any free port
  std::string caOut;                  // where to write the CA certificate (PEM); empty: nowhere
  std::string certFile;               // with keyFile: serve this identity instead of a throw-away one
  std::string keyFile;
  double intervalSeconds = 5.0;       // between two map updates
  std::vector<Resolution> resolutions = {{1024, 768}, {800, 600}, {400, 300}};  // none: a map without pictures
  FaultOptions faults;
  std::uint64_t seed = 20240611;      // for the fault probabilities; fixed so runs repeat
};

// The cabin server simulator: one HTTPS port with the map data resource, the
// rendered map images and the event WebSocket that pushes a map update on
// every tick. Everything runs on the given io_context; nothing else is
// started.
//
// Threading: create, call and destroy on the thread that runs the
// io_context (or before it runs). Sessions keep their shared state alive, so
// the io_context may outlive the Server; after stop() the loop runs out of
// work once the last connection has closed.
//
//   boost::asio::io_context ioc;
//   cabinsim::Server server(ioc, {.intervalSeconds = 0.2});
//   std::uint16_t port = server.start();
//   ...
//   server.stop();
//   ioc.run();
class Server {
 public:
  Server(boost::asio::io_context& ioc, ServerOptions options);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();  // stops

  // Sets up TLS (a throw-away CA unless certFile/keyFile), renders the first
  // maps, binds, starts accepting and the tick timer, writes caOut, and
  // returns the bound port. Throws std::exception on failure.
  std::uint16_t start();

  // Closes the listening socket and every connection and cancels the timers.
  void stop();
  // As stop(), but says so to the event clients: their connections close
  // with 1012 (service restart), so that they come back as soon as it is up.
  void stopForRestart();

  // Advances the flight now: renders the next maps and pushes the update.
  // The periodic ticks continue on their own schedule.
  void tick();

  // Replaces the fault options from now on (a soak ends its faults this
  // way); the drop timer follows the new period.
  void setFaults(FaultOptions faults);

  std::uint16_t port() const;
  // PEM of what a client has to trust to connect.
  const std::string& trustAnchorPem() const;
  std::uint64_t sequence() const;
  // Picture bytes sent in answers to GET so far (a 304 sends none).
  std::uint64_t imageBodyBytes() const;
  // Picture requests answered "304 Not Modified" so far.
  std::uint64_t notModifiedAnswers() const;
  // The current map data body, as the REST resource serves it.
  std::string flightMapJson() const;
  // The PNG served for this resolution at the current sequence; empty when
  // the server does not offer it.
  std::string currentPng(const Resolution& resolution) const;
  // Event connections that completed their handshake and are still open.
  std::size_t eventClientCount() const;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace cabinsim
