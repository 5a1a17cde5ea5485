// The C API as a C application uses it: only <QELMaps/qelmaps.h>, a client
// on the library's thread, the simulator on a thread of its own over real
// TLS. Then why there is no map: each way the cabin network fails, made for
// real (a wrong authority, a closed port, a port that never answers, a name
// that does not resolve, an error status, a malformed record, a picture over
// the budget), what reaches the status, and where the fault goes away the
// way back to live. Waits are on conditions with a generous bound, never on
// a clock.

#include <QELMaps/qelmaps.h>

#include <QELMaps/QELBroadcastMapsHost.h>

#include "../Network/TestDnsServer.h"
#include "../Support/Simulator.h"
#include "../Support/Sockets.h"
#include "../Support/WaitUntil.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

extern "C" int qelmaps_test_c_out_of_range(void);

namespace {

using namespace std::chrono_literals;

// What the callbacks saw, shared with the test thread.
struct Recorder {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<qelmaps_event> events;
  std::vector<std::thread::id> threads;
  std::atomic<int> logLines{0};
  std::deque<qelmaps_task*> tasks;  // handed over by the dispatch hook
  std::function<void(qelmaps_client*, qelmaps_event)> onEvent;
  // Each trace's source, result and phases (queued, body done, shown).
  std::vector<std::tuple<std::string, qelmaps_trace_result, std::int64_t, std::int64_t, std::int64_t>> traces;
  // What the last StatusDidChange callback read; the message is the channel's.
  qelmaps_channel channel = QELMAPS_CHANNEL_EVENTS;
  qelmaps_status status{};
  std::string text, message;

  template <class Predicate>
  bool waitFor(Predicate predicate) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 30s, predicate);
  }
  bool seen(qelmaps_event event) { return std::count(events.begin(), events.end(), event) > 0; }  // locked
  bool waitForEvent(qelmaps_event event) {
    return waitFor([&] { return seen(event); });
  }
  bool waitForStatus(const std::function<bool(const qelmaps_status&)>& predicate) {
    return waitFor([&] { return seen(QELMAPS_EVENT_STATUS_DID_CHANGE) && predicate(status); });
  }
  // The oldest delivery the dispatch hook queued, once there is one.
  qelmaps_task* nextTask() {
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, 20s, [&] { return !tasks.empty(); })) return nullptr;
    auto* task = tasks.front();
    tasks.pop_front();
    return task;
  }
};

void recordEvent(qelmaps_client* client, qelmaps_event event, void* userData) {
  auto* recorder = static_cast<Recorder*>(userData);
  qelmaps_status status{};
  char text[512] = "", message[512] = "";
  std::size_t length = 0;
  if (event == QELMAPS_EVENT_STATUS_DID_CHANGE) {
    // Inside the callback every read answers from the snapshot it announces.
    EXPECT_EQ(qelmaps_client_status(client, &status), QELMAPS_OK);
    EXPECT_EQ(qelmaps_client_status_text(client, text, sizeof text, &length), QELMAPS_OK);
    EXPECT_EQ(qelmaps_client_failure_message(client, recorder->channel, message, sizeof message, &length), QELMAPS_OK);
  }
  {
    std::lock_guard lock(recorder->mutex);
    recorder->events.push_back(event);
    recorder->threads.push_back(std::this_thread::get_id());
    if (event == QELMAPS_EVENT_STATUS_DID_CHANGE) {
      std::tie(recorder->status, recorder->text, recorder->message) = std::tuple(status, text, message);
    }
  }
  if (recorder->onEvent) recorder->onEvent(client, event);
  recorder->changed.notify_all();
}

void queueTask(qelmaps_task* task, void* userData) {
  auto* recorder = static_cast<Recorder*>(userData);
  std::lock_guard lock(recorder->mutex);
  recorder->tasks.push_back(task);
  recorder->changed.notify_all();
}

void recordTrace(qelmaps_client*, const qelmaps_trace* trace, void* userData) {
  auto* recorder = static_cast<Recorder*>(userData);
  std::lock_guard lock(recorder->mutex);
  recorder->traces.emplace_back(trace->source, trace->result, trace->queued_us, trace->body_done_us, trace->shown_us);
  recorder->changed.notify_all();
}

void countLog(int, const char*, const char*, void* userData) { ++static_cast<Recorder*>(userData)->logLines; }

// A configuration pointing at the cabin, every event, trace and log line
// seen by the recorder.
qelmaps_config* recordedConfig(Recorder& recorder, qel::testing::Simulator& cabin) {
  qelmaps_config* config = qelmaps_config_create();
  qelmaps_config_set_host(config, "127.0.0.1");
  qelmaps_config_set_port(config, cabin.port());
  qelmaps_config_set_ca_file(config, cabin.caFile().c_str());
  qelmaps_config_set_log_threshold(config, 5);
  qelmaps_config_set_log_callback(config, countLog, &recorder);
  qelmaps_config_set_trace_callback(config, recordTrace, &recorder);
  for (int event = 0; event <= QELMAPS_EVENT_STATUS_DID_CHANGE; ++event) {
    qelmaps_config_set_callback(config, qelmaps_event(event), recordEvent, &recorder);
  }
  return config;
}

class CApiTest : public ::testing::Test {
 protected:
  void SetUp() override { config_ = recordedConfig(recorder_, simulator_); }

  void TearDown() override {
    if (client_) {
      EXPECT_EQ(qelmaps_client_destroy(client_), QELMAPS_OK);
    }
    qelmaps_config_destroy(config_);
    // Only once the client is gone: no thread queues any more.
    for (auto* task : std::exchange(recorder_.tasks, {})) qelmaps_task_discard(task);
  }

  qel::testing::Simulator simulator_;
  Recorder recorder_;
  qelmaps_config* config_ = nullptr;
  qelmaps_client* client_ = nullptr;
};

TEST(CApiArgumentsTest, NullHandlesAndOutOfRangeValuesAreErrorsNotCrashesAndNamesAreKnown) {
  qelmaps_size size{};
  std::size_t count = 0;
  int flag = 0;
  qelmaps_map_data mapData{};
  qelmaps_picture* picture = nullptr;
  qelmaps_backoff backoff{};
  qelmaps_config* config = qelmaps_config_create();
  ASSERT_NE(config, nullptr);
  for (qelmaps_error error :
       {qelmaps_config_set_host(nullptr, "h"), qelmaps_config_set_ca_file(nullptr, "f"),
        qelmaps_config_set_event_path(nullptr, "/e"), qelmaps_config_set_port(nullptr, 1),
        qelmaps_config_set_log_threshold(nullptr, 1), qelmaps_config_set_log_callback(nullptr, nullptr, nullptr),
        qelmaps_config_set_callback(nullptr, QELMAPS_EVENT_ERROR, nullptr, nullptr),
        qelmaps_config_set_dispatch(nullptr, nullptr, nullptr), qelmaps_client_create(nullptr, nullptr),
        qelmaps_client_start(nullptr), qelmaps_client_stop(nullptr),
        qelmaps_client_choose_resolution(nullptr, 1024, 768), qelmaps_client_clear_resolution(nullptr),
        qelmaps_client_resolutions(nullptr, &size, 1, &count), qelmaps_client_current_resolution(nullptr, &size),
        qelmaps_client_state(nullptr, &flag, &flag), qelmaps_client_map_data(nullptr, &mapData),
        qelmaps_client_picture(nullptr, &picture),
        qelmaps_config_set_ca_pem(nullptr, "p", 1), qelmaps_config_set_dns_servers(nullptr, "127.0.0.1"),
        qelmaps_config_add_resolve(nullptr, "h:1:127.0.0.1"), qelmaps_config_set_max_pixels(nullptr, 1),
        qelmaps_config_set_max_map_entries(nullptr, 1), qelmaps_config_set_ca_pem(config, nullptr, 1),
        qelmaps_config_set_host(config, nullptr), qelmaps_client_create(config, nullptr),
        qelmaps_config_set_watch_network(nullptr, 1), qelmaps_backoff_default(QELMAPS_BACKOFF_EVENTS, nullptr),
        qelmaps_config_set_backoff(config, QELMAPS_BACKOFF_EVENTS, nullptr)}) {
    EXPECT_EQ(error, QELMAPS_ERROR_NULL_ARGUMENT);
  }
  EXPECT_EQ(qelmaps_client_destroy(nullptr), QELMAPS_OK);
  qelmaps_config_destroy(nullptr);
  qelmaps_task_run(nullptr);
  qelmaps_task_discard(nullptr);
  qelmaps_picture_release(nullptr);
  EXPECT_EQ(qelmaps_picture_retain(nullptr), nullptr);
  EXPECT_EQ(qelmaps_picture_width(nullptr) + qelmaps_picture_height(nullptr) + qelmaps_picture_stride(nullptr), 0u);
  EXPECT_EQ(qelmaps_picture_pixels(nullptr), nullptr);
  // A backoff out of range: no initial wait, a factor below one, a cap below
  // the initial wait, a jitter above one; then a kind that is none.
  const qelmaps_backoff backoffs[] = {{0, 2.0, 40, 1.0}, {40, 0.5, 40, 1.0}, {40, 2.0, 39, 1.0}, {40, 2.0, 40, 1.01}};
  for (qelmaps_error error :
       {qelmaps_config_set_port(config, 0), qelmaps_config_set_port(config, 65536), qelmaps_config_set_port(config, -1),
        qelmaps_config_set_log_threshold(config, -1), qelmaps_config_set_ca_pem(config, "", 0),
        qelmaps_config_set_max_pixels(config, 0), qelmaps_config_set_max_map_entries(config, 0),
        qelmaps_config_set_cache_dir(config, ""), qelmaps_config_set_backoff(config, QELMAPS_BACKOFF_EVENTS, backoffs),
        qelmaps_config_set_backoff(config, QELMAPS_BACKOFF_EVENTS, backoffs + 1),
        qelmaps_config_set_backoff(config, QELMAPS_BACKOFF_EVENTS, backoffs + 2),
        qelmaps_config_set_backoff(config, QELMAPS_BACKOFF_EVENTS, backoffs + 3),
        qelmaps_config_set_backoff(config, static_cast<qelmaps_backoff_kind>(2), backoffs)}) {
    EXPECT_EQ(error, QELMAPS_ERROR_INVALID_ARGUMENT);
  }
  EXPECT_EQ(qelmaps_config_set_port(config, 65535), QELMAPS_OK);
  qelmaps_config_destroy(config);
  EXPECT_EQ(qelmaps_test_c_out_of_range(), 0);
  ASSERT_EQ(qelmaps_backoff_default(QELMAPS_BACKOFF_EVENTS, &backoff), QELMAPS_OK);
  EXPECT_EQ(std::pair(backoff.initial_ms, backoff.jitter), std::pair(3000u, 1.0));

  std::set<std::string> names;
  for (int code = QELMAPS_OK; code <= QELMAPS_ERROR_OUT_OF_MEMORY; ++code) {
    names.insert(qelmaps_error_string(static_cast<qelmaps_error>(code)));
  }
  EXPECT_EQ(names.size(), 10u);
  EXPECT_STREQ(qelmaps_error_string(QELMAPS_ERROR_BUSY), "QELMAPS_ERROR_BUSY");
  // The C events are numbered in the order the host lists its events.
  for (int event = 0; event <= QELMAPS_EVENT_STATE_DID_CHANGE; ++event) {
    EXPECT_EQ(qelmaps_event_name(qelmaps_event(event)),
              qel::QELBroadcastMapsHost::notificationName(qel::QELBroadcastMapsHostEvent(event)));
  }
  EXPECT_STREQ(qelmaps_failure_string(QELMAPS_FAILURE_NONE), "none");
  EXPECT_STREQ(qelmaps_failure_string(QELMAPS_FAILURE_CERTIFICATE), "certificate not trusted");
  EXPECT_EQ(qelmaps_failure_string(static_cast<qelmaps_failure>(12)), nullptr);
  EXPECT_STREQ(qelmaps_phase_string(QELMAPS_PHASE_WAITING_TO_RETRY), "waiting to retry");
  EXPECT_EQ(qelmaps_phase_string(static_cast<qelmaps_phase>(-1)), nullptr);
  EXPECT_STREQ(qelmaps_service_version(), "03.19.02.00");
  EXPECT_STRNE(qelmaps_version(), "");
}

TEST_F(CApiTest, ReceivesResolutionsAndTheChosenPictureOnTheLibraryThreadWhichMayNotDestroyTheClient) {
  // The host would wait for its own thread.
  std::atomic<qelmaps_error> destroyInCallback{QELMAPS_OK};
  recorder_.onEvent = [&](qelmaps_client* client, qelmaps_event) {
    destroyInCallback = qelmaps_client_destroy(client);
  };
  ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
  qelmaps_client* second = nullptr;
  EXPECT_EQ(qelmaps_client_create(config_, &second), QELMAPS_ERROR_BUSY);
  EXPECT_EQ(second, nullptr);

  qelmaps_picture* picture = nullptr;
  EXPECT_EQ(qelmaps_client_picture(client_, &picture), QELMAPS_ERROR_NO_PICTURE);
  EXPECT_EQ(qelmaps_client_last_picture(client_, &picture), QELMAPS_ERROR_NO_PICTURE);
  // The text buffer convention on the stopped client's status line: the
  // full length told, the text cut to fit. No failure message yet.
  EXPECT_EQ(qelmaps_client_status(client_, nullptr), QELMAPS_ERROR_NULL_ARGUMENT);
  std::size_t length = 0;
  char small[4];
  EXPECT_EQ(qelmaps_client_status_text(client_, nullptr, 0, &length), QELMAPS_OK);
  EXPECT_EQ(length, std::string("Stopped").size());
  EXPECT_EQ(qelmaps_client_status_text(client_, small, sizeof small, &length), QELMAPS_ERROR_BUFFER_TOO_SMALL);
  EXPECT_STREQ(small, "Sto");
  EXPECT_EQ(qelmaps_client_failure_message(client_, static_cast<qelmaps_channel>(3), nullptr, 0, &length),
            QELMAPS_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(qelmaps_client_failure_message(client_, QELMAPS_CHANNEL_PICTURE, small, sizeof small, &length), QELMAPS_OK);
  EXPECT_EQ(length, 0u);
  qelmaps_size size{};
  for (auto [w, h] : {std::pair{0.0, 768.0}, {1024.0, -1.0}, {NAN, 768.0}, {1024.0, INFINITY}}) {
    EXPECT_EQ(qelmaps_client_choose_resolution(client_, w, h), QELMAPS_ERROR_INVALID_ARGUMENT);
  }
  ASSERT_EQ(qelmaps_client_choose_resolution(client_, 800, 600), QELMAPS_OK);
  ASSERT_EQ(qelmaps_client_start(client_), QELMAPS_OK);
  ASSERT_TRUE(recorder_.waitForEvent(QELMAPS_EVENT_IMAGE_DID_CHANGE));

  ASSERT_EQ(qelmaps_client_picture(client_, &picture), QELMAPS_OK);
  // Its trace, in order, and the stats document that counts it.
  ASSERT_TRUE(recorder_.waitFor([&] { return !recorder_.traces.empty(); }));
  {
    std::lock_guard lock(recorder_.mutex);
    const auto& [source, result, queued, bodyDone, shown] = recorder_.traces.front();
    EXPECT_EQ(source, "/maps/800x600/1.png");
    EXPECT_EQ(result, QELMAPS_TRACE_SHOWN);
    EXPECT_TRUE(0 < queued && queued <= bodyDone && bodyDone <= shown) << queued << " " << bodyDone << " " << shown;
  }
  char stats[2048];
  std::size_t statsLength = 0;
  ASSERT_EQ(qelmaps_client_stats(client_, stats, sizeof stats, &statsLength), QELMAPS_OK);
  EXPECT_NE(std::string(stats).find("\"qelmaps.picture.shown\":1"), std::string::npos) << stats;
  EXPECT_EQ(qelmaps_picture_width(picture), 800u);
  EXPECT_EQ(qelmaps_picture_height(picture), 600u);
  EXPECT_EQ(qelmaps_picture_stride(picture), 800u * 4);
  ASSERT_NE(qelmaps_picture_pixels(picture), nullptr);

  std::size_t count = 0;
  EXPECT_EQ(qelmaps_client_resolutions(client_, nullptr, 0, &count), QELMAPS_ERROR_BUFFER_TOO_SMALL);
  EXPECT_EQ(count, 3u);
  qelmaps_size sizes[4] = {};
  EXPECT_EQ(qelmaps_client_resolutions(client_, sizes, 1, &count), QELMAPS_ERROR_BUFFER_TOO_SMALL);
  EXPECT_EQ(sizes[1].width, 0);
  EXPECT_EQ(qelmaps_client_resolutions(client_, sizes, 4, &count), QELMAPS_OK);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(sizes[0].width, 1024);
  EXPECT_EQ(sizes[2].height, 300);
  EXPECT_EQ(qelmaps_client_current_resolution(client_, &size), QELMAPS_OK);
  EXPECT_EQ(size.width, 800);
  int receiving = 0, hasMapData = 0;
  EXPECT_EQ(qelmaps_client_state(client_, &receiving, &hasMapData), QELMAPS_OK);
  EXPECT_EQ(receiving + hasMapData, 2);
  qelmaps_map_data mapData{};
  EXPECT_EQ(qelmaps_client_map_data(client_, &mapData), QELMAPS_OK);
  EXPECT_EQ(mapData, QELMAPS_MAP_DATA_LISTED);

  // No map data once the server is gone.
  simulator_.stop();
  ASSERT_TRUE(recorder_.waitForEvent(QELMAPS_EVENT_ERROR));
  EXPECT_EQ(qelmaps_client_state(client_, nullptr, &hasMapData), QELMAPS_OK);
  EXPECT_EQ(hasMapData, 0);
  EXPECT_EQ(qelmaps_client_map_data(client_, &mapData), QELMAPS_OK);
  EXPECT_EQ(mapData, QELMAPS_MAP_DATA_NONE);
  EXPECT_EQ(qelmaps_client_resolutions(client_, nullptr, 0, &count), QELMAPS_OK);
  EXPECT_EQ(count, 0u);
  // The map stays on screen: the last picture is the one shown, stale now,
  // received when it was.
  qelmaps_picture* last = nullptr;
  int stale = 0;
  EXPECT_EQ(qelmaps_client_picture(client_, &last), QELMAPS_ERROR_NO_PICTURE);
  ASSERT_EQ(qelmaps_client_last_picture(client_, &last), QELMAPS_OK);
  EXPECT_EQ(qelmaps_picture_pixels(last), qelmaps_picture_pixels(picture));
  EXPECT_EQ(qelmaps_picture_received_at_ms(last), qelmaps_picture_received_at_ms(picture));
  EXPECT_GT(qelmaps_picture_received_at_ms(last), 0);
  EXPECT_EQ(qelmaps_client_picture_is_stale(client_, &stale), QELMAPS_OK);
  EXPECT_EQ(stale, 1);
  qelmaps_picture_release(last);
  // Cleared only now: with the server up, the service would fetch a picture
  // of its own choice, which would become the last one.
  ASSERT_EQ(qelmaps_client_clear_resolution(client_), QELMAPS_OK);
  ASSERT_TRUE(qel::testing::waitUntil(
      [&] { return qelmaps_client_current_resolution(client_, &size) == QELMAPS_ERROR_NO_RESOLUTION; }));

  // The picture outlives the client; every callback ran on one thread that
  // is not ours (gone now: nothing else touches the recorder).
  qelmaps_picture* kept = qelmaps_picture_retain(picture);
  qelmaps_picture_release(picture);
  ASSERT_EQ(qelmaps_client_destroy(client_), QELMAPS_OK);
  client_ = nullptr;
  EXPECT_EQ(destroyInCallback, QELMAPS_ERROR_WRONG_THREAD);
  recorder_.onEvent = nullptr;
  for (auto id : recorder_.threads) EXPECT_EQ(id, recorder_.threads.front());
  EXPECT_NE(recorder_.threads.front(), std::this_thread::get_id());
  EXPECT_GT(recorder_.logLines, 0);
  EXPECT_EQ(qelmaps_picture_pixels(kept)[3], 255);  // opaque map, read after the client is gone
  qelmaps_picture_release(kept);

  // Another client may be made once the first is gone.
  ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
}

TEST_F(CApiTest, AMapRecordWithoutPicturesIsNoErrorAndToldApartFromNone) {
  cabinsim::ServerOptions options;
  options.resolutions.clear();
  qel::testing::Simulator empty(qel::testing::Simulator::ticked(options));
  ASSERT_EQ(qelmaps_config_set_port(config_, *empty.configuration().port), QELMAPS_OK);
  ASSERT_EQ(qelmaps_config_set_ca_file(config_, empty.caFile().c_str()), QELMAPS_OK);
  ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
  ASSERT_TRUE(recorder_.waitForEvent(QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE));
  qelmaps_map_data mapData{};
  int hasMapData = 1;
  EXPECT_EQ(qelmaps_client_map_data(client_, &mapData), QELMAPS_OK);
  EXPECT_EQ(mapData, QELMAPS_MAP_DATA_EMPTY);
  EXPECT_EQ(qelmaps_client_state(client_, nullptr, &hasMapData), QELMAPS_OK);
  EXPECT_EQ(hasMapData, 0);
  {
    std::lock_guard lock(recorder_.mutex);
    EXPECT_FALSE(recorder_.seen(QELMAPS_EVENT_ERROR));
  }

  // The record is loaded at once, the event channel may still be on its
  // way: only losing a connection that was up leaves no record.
  ASSERT_TRUE(qel::testing::waitUntil([&] { return empty.eventChannelUp(); }));
  empty.stop();
  ASSERT_TRUE(recorder_.waitForEvent(QELMAPS_EVENT_ERROR));
  EXPECT_EQ(qelmaps_client_map_data(client_, &mapData), QELMAPS_OK);
  EXPECT_EQ(mapData, QELMAPS_MAP_DATA_NONE);
}

TEST_F(CApiTest, DispatchedDeliveriesRunOnTheApplicationThreadWhichMayDestroyTheClient) {
  ASSERT_EQ(qelmaps_config_set_dispatch(config_, queueTask, &recorder_), QELMAPS_OK);
  // The authority as an application carries it in its bundle: in memory,
  // trusted instead of the CA file (which no longer exists).
  std::ifstream caFile(simulator_.caFile());
  const std::string pem{std::istreambuf_iterator<char>(caFile), std::istreambuf_iterator<char>()};
  ASSERT_EQ(qelmaps_config_set_ca_pem(config_, pem.data(), pem.size()), QELMAPS_OK);
  ASSERT_EQ(qelmaps_config_set_ca_file(config_, "/nonexistent/ca.pem"), QELMAPS_OK);
  // Inside a callback the client reads what was announced. Destroyed there
  // with deliveries still queued, running those later calls nothing.
  recorder_.onEvent = [&](qelmaps_client* client, qelmaps_event event) {
    if (event != QELMAPS_EVENT_IMAGE_DID_CHANGE) return;
    qelmaps_picture* picture = nullptr;
    EXPECT_EQ(qelmaps_client_picture(client, &picture), QELMAPS_OK);
    qelmaps_picture_release(picture);
    ASSERT_EQ(qelmaps_client_stop(client), QELMAPS_OK);
    ASSERT_TRUE(recorder_.waitFor([&] { return !recorder_.tasks.empty(); }));
    ASSERT_EQ(qelmaps_client_destroy(client), QELMAPS_OK);
    client_ = nullptr;
  };
  ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
  ASSERT_EQ(qelmaps_client_start(client_), QELMAPS_OK);
  while (client_) {
    qelmaps_task* task = recorder_.nextTask();
    ASSERT_NE(task, nullptr);
    qelmaps_task_run(task);
  }
  // The library thread is gone: nothing else touches the recorder.
  for (auto id : recorder_.threads) EXPECT_EQ(id, std::this_thread::get_id());
  const auto delivered = recorder_.events.size();
  for (auto* task : std::exchange(recorder_.tasks, {})) qelmaps_task_run(task);
  EXPECT_EQ(recorder_.events.size(), delivered);
}

// A loopback port that swallows connects, as a dead route does: a listener
// whose accept queue one connection fills, so that the kernel drops every
// later handshake without an answer.
struct BlackHole {
  boost::asio::io_context context;
  boost::asio::ip::tcp::acceptor listener{context, {boost::asio::ip::address_v4::loopback(), 0}};
  boost::asio::ip::tcp::socket filler{context};
  BlackHole() {
    listener.listen(0);
    filler.connect(listener.local_endpoint());
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

using Servers = std::shared_ptr<void>;

struct Case {
  const char* name;
  // Points the configuration, at the cabin until then, elsewhere; the
  // servers it makes for that live as long as the client.
  std::function<Servers(qelmaps_config*)> setUp;
  qelmaps_channel channel;
  qelmaps_failure failure;
  int code;
  qelmaps_phase phase;
  const char* message;  // part of the channel's failure message
  const char* text;     // part of the status line
  bool recovers = false;  // the fault ends by itself: the status must return to live
  int failRest = 0, malformedRest = 0;  // the cabin's error statuses, then malformed records, for the map data
};

TEST(CApiStatusTest, EachFailureReachesTheStatusWithItsKindAndWordsAndLiveReturnsWhenItEnds) {
  const Case cases[] = {
      {"wrong authority",
       [](qelmaps_config* config) -> Servers {
         auto stranger = std::make_shared<qel::testing::Simulator>();
         qelmaps_config_set_ca_file(config, stranger->caFile().c_str());
         return stranger;
       },
       QELMAPS_CHANNEL_EVENTS, QELMAPS_FAILURE_CERTIFICATE, 0, QELMAPS_PHASE_WAITING_TO_RETRY,
       "unable to get local issuer certificate",
       "Cannot verify the cabin server's certificate: unable to get local issuer certificate"},
      {"closed port",
       [](qelmaps_config* config) {
         qelmaps_config_set_port(config, qel::testing::closedPort());
         return Servers();
       },
       QELMAPS_CHANNEL_EVENTS, QELMAPS_FAILURE_CONNECTION_REFUSED, 0, QELMAPS_PHASE_WAITING_TO_RETRY,
       "Connection refused", "Cabin server refused the connection, next try in"},
      {"port that never answers",
       [](qelmaps_config* config) -> Servers {
         auto hole = std::make_shared<BlackHole>();
         qelmaps_config_set_port(config, hole->listener.local_endpoint().port());
         return hole;
       },
       QELMAPS_CHANNEL_EVENTS, QELMAPS_FAILURE_UNREACHABLE, 0, QELMAPS_PHASE_WAITING_TO_RETRY,
       "no connection within", "Cabin server unreachable, next try in"},
      {"name that does not resolve",
       [](qelmaps_config* config) -> Servers {
         auto names = std::make_shared<NameServer>();
         qelmaps_config_set_host(config, "cabin.test");
         qelmaps_config_set_dns_servers(config, names->dns.address().c_str());
         return names;
       },
       QELMAPS_CHANNEL_EVENTS, QELMAPS_FAILURE_NAME_LOOKUP, 0, QELMAPS_PHASE_WAITING_TO_RETRY, "cabin.test",
       "Cabin server name not found, next try in"},
      {"map data answered with an error status",
       // Twice: the load at the start may fail before the event channel is
       // up; the one that follows (on connecting, or the retry) fails with it up.
       {}, QELMAPS_CHANNEL_MAP_DATA, QELMAPS_FAILURE_HTTP_STATUS, 503, QELMAPS_PHASE_NO_MAP_DATA, "status 503",
       "Connected; Cabin server error (status 503), next try in",
       true, 2},  // the map data's own retry succeeds
      {"malformed record",
       // Malformed twice: the map data is asked for at the start and again
       // once the event channel is up.
       {}, QELMAPS_CHANNEL_MAP_DATA, QELMAPS_FAILURE_MAP_DATA_REFUSED, 0, QELMAPS_PHASE_NO_MAP_DATA,
       "\"images\" is not an array", "Connected; Map data refused: \"images\" is not an array", false, 0,
       2},
      {"picture over the budget",
       [](qelmaps_config* config) {
         qelmaps_config_set_max_pixels(config, 1000);
         return Servers();
       },
       QELMAPS_CHANNEL_PICTURE, QELMAPS_FAILURE_PICTURE_REFUSED, 0, QELMAPS_PHASE_LIVE,
       "declares 1024x768 pixels, more than the 1000 allowed", "Live; Map picture refused: its header declares"},
  };

  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.name);
    cabinsim::ServerOptions options = qel::testing::Simulator::ticked();
    options.faults.failRest = testCase.failRest;
    options.faults.malformedRest = testCase.malformedRest;
    qel::testing::Simulator cabin(options);
    Recorder recorder;
    recorder.channel = testCase.channel;
    qelmaps_config* config = recordedConfig(recorder, cabin);
    auto servers = testCase.setUp ? testCase.setUp(config) : nullptr;
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
    EXPECT_TRUE(recorder.waitForStatus(failed)) << "phase " << qelmaps_phase_string(recorder.status.phase) << ", "
                                                << recorder.text;
    {
      std::lock_guard lock(recorder.mutex);
      const auto& channel = recorder.status.channels[testCase.channel];
      EXPECT_EQ(channel.code, testCase.code);
      EXPECT_GT(channel.failed_at_ms, 0);
      EXPECT_NE(recorder.message.find(testCase.message), std::string::npos) << recorder.message;
      EXPECT_EQ(recorder.text.rfind(testCase.text, 0), 0u) << recorder.text;
    }

    if (testCase.recovers) {
      EXPECT_TRUE(recorder.waitForStatus([&](const qelmaps_status& status) {
        return status.phase == QELMAPS_PHASE_LIVE && status.channels[testCase.channel].consecutive_failures == 0;
      })) << recorder.text;
      std::lock_guard lock(recorder.mutex);
      EXPECT_EQ(recorder.text, "Live");
      // The failure stays readable as the last one.
      EXPECT_EQ(recorder.status.channels[testCase.channel].failure, testCase.failure);
    }
    EXPECT_EQ(qelmaps_client_destroy(client), QELMAPS_OK);
  }
}

// The application's backoff reaches the event channel: a fixed 40 ms wait
// against a closed port makes twenty failed attempts in well under the time
// the default's take (more than a minute); the status's next attempt is the
// configured wait after the failure.
TEST_F(CApiTest, TheBackoffSetPacesTheEventChannelsAttempts) {
  const qelmaps_backoff backoff{40, 1.0, 40, 0.0};
  ASSERT_EQ(qelmaps_config_set_backoff(config_, QELMAPS_BACKOFF_EVENTS, &backoff), QELMAPS_OK);
  ASSERT_EQ(qelmaps_config_set_port(config_, qel::testing::closedPort()), QELMAPS_OK);
  ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
  ASSERT_EQ(qelmaps_client_start(client_), QELMAPS_OK);
  EXPECT_TRUE(recorder_.waitForStatus([](const qelmaps_status& status) {
    return status.channels[QELMAPS_CHANNEL_EVENTS].consecutive_failures >= 20;
  }));
  std::lock_guard lock(recorder_.mutex);
  const auto wait = recorder_.status.next_attempt_ms - recorder_.status.channels[QELMAPS_CHANNEL_EVENTS].failed_at_ms;
  EXPECT_GE(wait, 30);
  EXPECT_LE(wait, 45);
}

}  // namespace
