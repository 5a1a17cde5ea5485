// Why there is no map, as a C application reads it: each way the cabin
// network fails, made for real (a wrong authority, a closed port, a port
// that never answers, a name that does not resolve, an error status, a
// malformed record, a picture over the budget), and what reaches the status
// through the C API; then, where the fault goes away, the way back to live.

#include <QELMaps/qelmaps.h>

#include "../Network/TestDnsServer.h"
#include "../Support/Simulator.h"
#include "../Support/Sockets.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;

// The status each StatusDidChange callback read, for the test thread.
struct Watch {
  std::mutex mutex;
  std::condition_variable changed;
  qelmaps_status status{};
  std::string text;
  std::string message;  // of the channel under test
  qelmaps_channel channel = QELMAPS_CHANNEL_EVENTS;
  int deliveries = 0;

  bool waitFor(const std::function<bool(const qelmaps_status&)>& predicate) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 30s, [&] { return deliveries > 0 && predicate(status); });
  }
};

void onStatus(qelmaps_client* client, qelmaps_event, void* userData) {
  auto* watch = static_cast<Watch*>(userData);
  qelmaps_status status{};
  char text[512];
  char message[512];
  std::size_t length = 0;
  // Inside the callback every read answers from the snapshot it announces.
  EXPECT_EQ(qelmaps_client_status(client, &status), QELMAPS_OK);
  EXPECT_EQ(qelmaps_client_status_text(client, text, sizeof text, &length), QELMAPS_OK);
  EXPECT_EQ(qelmaps_client_failure_message(client, watch->channel, message, sizeof message, &length), QELMAPS_OK);
  {
    std::lock_guard lock(watch->mutex);
    watch->status = status;
    watch->text = text;
    watch->message = message;
    ++watch->deliveries;
  }
  watch->changed.notify_all();
}

// A loopback port that swallows connects, as a dead route does: a listener
// whose accept queue one connection fills, so that the kernel drops every
// later handshake without an answer.
struct BlackHole {
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  int filler = ::socket(AF_INET, SOCK_STREAM, 0);
  std::uint16_t port = 0;
  BlackHole() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), size);
    ::listen(listener, 0);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
    ::connect(filler, reinterpret_cast<sockaddr*>(&address), size);
  }
  ~BlackHole() {
    ::close(filler);
    ::close(listener);
  }
};

// The project's name server on a thread of its own; it knows no name.
struct NameServer {
  boost::asio::io_context context;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{context.get_executor()};
  qel::core::net::testing::TestDnsServer dns{context};
  std::thread thread{[this] { context.run(); }};
  ~NameServer() {
    context.stop();
    thread.join();
  }
};

struct Case {
  const char* name;
  // Makes the servers the case needs and points the configuration at them;
  // what it returns lives as long as the client.
  std::function<std::shared_ptr<void>(qelmaps_config*)> setUp;
  qelmaps_channel channel;
  qelmaps_failure failure;
  int code;
  qelmaps_phase phase;
  const char* message;  // part of the channel's failure message
  const char* text;     // part of the status line
  // Removes the fault (empty: it stays); the status must return to live.
  std::function<void(void*)> recover = {};
};

cabinsim::FaultOptions failingRest(int failures, int malformed) {
  cabinsim::FaultOptions faults;
  faults.failRest = failures;
  faults.malformedRest = malformed;
  return faults;
}

std::shared_ptr<qel::testing::Simulator> simulatorFor(qelmaps_config* config, cabinsim::FaultOptions faults = {}) {
  cabinsim::ServerOptions options = qel::testing::Simulator::ticked();
  options.faults = faults;
  auto simulator = std::make_shared<qel::testing::Simulator>(options);
  qelmaps_config_set_host(config, "127.0.0.1");
  qelmaps_config_set_port(config, simulator->port());
  qelmaps_config_set_ca_file(config, simulator->caFile().c_str());
  return simulator;
}

TEST(CApiStatusTest, EachFailureReachesTheStatusWithItsKindAndWordsAndLiveReturnsWhenItEnds) {
  const Case cases[] = {
      {"wrong authority",
       [](qelmaps_config* config) {
         auto cabin = simulatorFor(config);
         auto stranger = std::make_shared<qel::testing::Simulator>();
         qelmaps_config_set_ca_file(config, stranger->caFile().c_str());
         return std::make_shared<std::pair<decltype(cabin), decltype(stranger)>>(cabin, stranger);
       },
       QELMAPS_CHANNEL_EVENTS, QELMAPS_FAILURE_CERTIFICATE, 0, QELMAPS_PHASE_WAITING_TO_RETRY,
       "unable to get local issuer certificate",
       "Cannot verify the cabin server's certificate: unable to get local issuer certificate"},
      {"closed port",
       [](qelmaps_config* config) {
         auto cabin = simulatorFor(config);
         qelmaps_config_set_port(config, qel::testing::closedPort());
         return std::shared_ptr<void>(cabin);
       },
       QELMAPS_CHANNEL_EVENTS, QELMAPS_FAILURE_CONNECTION_REFUSED, 0, QELMAPS_PHASE_WAITING_TO_RETRY,
       "Connection refused", "Cabin server refused the connection, next try in"},
      {"port that never answers",
       [](qelmaps_config* config) {
         auto cabin = simulatorFor(config);
         auto hole = std::make_shared<BlackHole>();
         qelmaps_config_set_port(config, hole->port);
         return std::make_shared<std::pair<decltype(cabin), decltype(hole)>>(cabin, hole);
       },
       QELMAPS_CHANNEL_EVENTS, QELMAPS_FAILURE_UNREACHABLE, 0, QELMAPS_PHASE_WAITING_TO_RETRY,
       "no connection within", "Cabin server unreachable, next try in"},
      {"name that does not resolve",
       [](qelmaps_config* config) {
         auto cabin = simulatorFor(config);
         auto names = std::make_shared<NameServer>();
         qelmaps_config_set_host(config, "cabin.test");
         qelmaps_config_set_dns_servers(config, names->dns.address().c_str());
         return std::make_shared<std::pair<decltype(cabin), decltype(names)>>(cabin, names);
       },
       QELMAPS_CHANNEL_EVENTS, QELMAPS_FAILURE_NAME_LOOKUP, 0, QELMAPS_PHASE_WAITING_TO_RETRY, "cabin.test",
       "Cabin server name not found, next try in"},
      {"map data answered with an error status",
       // Twice: the load at the start may fail before the event channel is
       // up; the one that follows (on connecting, or the retry) fails with it up.
       [](qelmaps_config* config) { return std::shared_ptr<void>(simulatorFor(config, failingRest(2, 0))); },
       QELMAPS_CHANNEL_MAP_DATA, QELMAPS_FAILURE_HTTP_STATUS, 503, QELMAPS_PHASE_NO_MAP_DATA, "status 503",
       "Connected; Cabin server error (status 503), next try in",
       [](void*) {}},  // the map data's own retry succeeds
      {"malformed record",
       // Malformed twice: the map data is asked for at the start and again
       // once the event channel is up.
       [](qelmaps_config* config) { return std::shared_ptr<void>(simulatorFor(config, failingRest(0, 2))); },
       QELMAPS_CHANNEL_MAP_DATA, QELMAPS_FAILURE_MAP_DATA_REFUSED, 0, QELMAPS_PHASE_NO_MAP_DATA,
       "\"images\" is not an array", "Connected; Map data refused: \"images\" is not an array"},
      {"picture over the budget",
       [](qelmaps_config* config) {
         auto cabin = simulatorFor(config);
         qelmaps_config_set_max_pixels(config, 1000);
         return std::shared_ptr<void>(cabin);
       },
       QELMAPS_CHANNEL_PICTURE, QELMAPS_FAILURE_PICTURE_REFUSED, 0, QELMAPS_PHASE_LIVE,
       "declares 1024x768 pixels, more than the 1000 allowed", "Live; Map picture refused: its header declares"},
  };

  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.name);
    Watch watch;
    watch.channel = testCase.channel;
    qelmaps_config* config = qelmaps_config_create();
    ASSERT_EQ(qelmaps_config_set_callback(config, QELMAPS_EVENT_STATUS_DID_CHANGE, onStatus, &watch), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_log_threshold(config, 0), QELMAPS_OK);
    auto servers = testCase.setUp(config);
    qelmaps_client* client = nullptr;
    ASSERT_EQ(qelmaps_client_create(config, &client), QELMAPS_OK);
    qelmaps_config_destroy(config);
    ASSERT_EQ(qelmaps_client_start(client), QELMAPS_OK);

    // Refused content is not asked for again; a failure to reach the
    // server or an error status is, at a time the status tells (until that
    // attempt begins).
    const bool retried =
        testCase.failure != QELMAPS_FAILURE_MAP_DATA_REFUSED && testCase.failure != QELMAPS_FAILURE_PICTURE_REFUSED;
    const auto failed = [&](const qelmaps_status& status) {
      const auto& channel = status.channels[testCase.channel];
      return channel.failure == testCase.failure && channel.consecutive_failures > 0 &&
             status.phase == testCase.phase && (status.next_attempt_ms > 0) == retried;
    };
    EXPECT_TRUE(watch.waitFor(failed)) << "phase " << qelmaps_phase_string(watch.status.phase) << ", "
                                       << watch.text;
    {
      std::lock_guard lock(watch.mutex);
      const auto& channel = watch.status.channels[testCase.channel];
      EXPECT_EQ(channel.code, testCase.code);
      EXPECT_GT(channel.failed_at_ms, 0);
      EXPECT_NE(watch.message.find(testCase.message), std::string::npos) << watch.message;
      EXPECT_EQ(watch.text.rfind(testCase.text, 0), 0u) << watch.text;
    }

    if (testCase.recover) {
      testCase.recover(servers.get());
      EXPECT_TRUE(watch.waitFor([&](const qelmaps_status& status) {
        return status.phase == QELMAPS_PHASE_LIVE && status.channels[testCase.channel].consecutive_failures == 0;
      })) << watch.text;
      std::lock_guard lock(watch.mutex);
      EXPECT_EQ(watch.text, "Live");
      // The failure stays readable as the last one.
      EXPECT_EQ(watch.status.channels[testCase.channel].failure, testCase.failure);
    }
    EXPECT_EQ(qelmaps_client_destroy(client), QELMAPS_OK);
  }
}

// The application's backoff reaches the event channel: a fixed 40 ms wait
// against a closed port makes twenty failed attempts in well under the
// time the default's take (the test's 30 s); the status's next attempt is the
// configured wait after the failure.
TEST(CApiStatusTest, TheBackoffSetPacesTheEventChannelsAttempts) {
  qelmaps_backoff backoff{};
  ASSERT_EQ(qelmaps_backoff_default(QELMAPS_BACKOFF_EVENTS, &backoff), QELMAPS_OK);
  EXPECT_EQ(backoff.initial_ms, 3000u);
  EXPECT_EQ(backoff.jitter, 1.0);
  backoff = {40, 1.0, 40, 0.0};
  Watch watch;
  qelmaps_config* config = qelmaps_config_create();
  ASSERT_EQ(qelmaps_config_set_backoff(config, QELMAPS_BACKOFF_EVENTS, &backoff), QELMAPS_OK);
  for (const qelmaps_backoff& invalid : {qelmaps_backoff{0, 2.0, 40, 1.0}, qelmaps_backoff{40, 0.5, 40, 1.0},
                                         qelmaps_backoff{40, 2.0, 39, 1.0}, qelmaps_backoff{40, 2.0, 40, 1.01}}) {
    EXPECT_EQ(qelmaps_config_set_backoff(config, QELMAPS_BACKOFF_EVENTS, &invalid), QELMAPS_ERROR_INVALID_ARGUMENT);
  }
  EXPECT_EQ(qelmaps_config_set_backoff(config, static_cast<qelmaps_backoff_kind>(2), &backoff),
            QELMAPS_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(qelmaps_config_set_backoff(config, QELMAPS_BACKOFF_EVENTS, nullptr), QELMAPS_ERROR_NULL_ARGUMENT);
  ASSERT_EQ(qelmaps_config_set_callback(config, QELMAPS_EVENT_STATUS_DID_CHANGE, onStatus, &watch), QELMAPS_OK);
  qelmaps_config_set_log_threshold(config, 0);
  auto cabin = simulatorFor(config);
  qelmaps_config_set_port(config, qel::testing::closedPort());
  qelmaps_client* client = nullptr;
  ASSERT_EQ(qelmaps_client_create(config, &client), QELMAPS_OK);
  qelmaps_config_destroy(config);
  ASSERT_EQ(qelmaps_client_start(client), QELMAPS_OK);
  // With the default the twenty would take more than a minute.
  EXPECT_TRUE(watch.waitFor([](const qelmaps_status& status) {
    return status.channels[QELMAPS_CHANNEL_EVENTS].consecutive_failures >= 20;
  }));
  {
    std::lock_guard lock(watch.mutex);
    const auto wait = watch.status.next_attempt_ms - watch.status.channels[QELMAPS_CHANNEL_EVENTS].failed_at_ms;
    EXPECT_GE(wait, 30);
    EXPECT_LE(wait, 45);
  }
  EXPECT_EQ(qelmaps_client_destroy(client), QELMAPS_OK);
}

TEST(CApiStatusTest, NamesOfKindsAndPhasesAndTheTextBufferConvention) {
  EXPECT_STREQ(qelmaps_failure_string(QELMAPS_FAILURE_NONE), "none");
  EXPECT_STREQ(qelmaps_failure_string(QELMAPS_FAILURE_CERTIFICATE), "certificate not trusted");
  EXPECT_EQ(qelmaps_failure_string(static_cast<qelmaps_failure>(12)), nullptr);
  EXPECT_STREQ(qelmaps_phase_string(QELMAPS_PHASE_WAITING_TO_RETRY), "waiting to retry");
  EXPECT_EQ(qelmaps_phase_string(static_cast<qelmaps_phase>(-1)), nullptr);

  qelmaps_config* config = qelmaps_config_create();
  qelmaps_config_set_log_threshold(config, 0);
  qelmaps_client* client = nullptr;
  ASSERT_EQ(qelmaps_client_create(config, &client), QELMAPS_OK);
  qelmaps_config_destroy(config);
  std::size_t length = 0;
  char small[4];
  EXPECT_EQ(qelmaps_client_status_text(client, nullptr, 0, &length), QELMAPS_OK);
  EXPECT_EQ(length, std::string("Stopped").size());
  EXPECT_EQ(qelmaps_client_status_text(client, small, sizeof small, &length), QELMAPS_ERROR_BUFFER_TOO_SMALL);
  EXPECT_STREQ(small, "Sto");
  EXPECT_EQ(qelmaps_client_failure_message(client, static_cast<qelmaps_channel>(3), nullptr, 0, &length),
            QELMAPS_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(qelmaps_client_failure_message(client, QELMAPS_CHANNEL_PICTURE, small, sizeof small, &length), QELMAPS_OK);
  EXPECT_EQ(length, 0u);
  qelmaps_status status{};
  EXPECT_EQ(qelmaps_client_status(client, nullptr), QELMAPS_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(qelmaps_client_status(client, &status), QELMAPS_OK);
  EXPECT_EQ(status.phase, QELMAPS_PHASE_STOPPED);
  EXPECT_EQ(status.channels[QELMAPS_CHANNEL_EVENTS].failure, QELMAPS_FAILURE_NONE);
  EXPECT_EQ(qelmaps_client_destroy(client), QELMAPS_OK);
}

}  // namespace
