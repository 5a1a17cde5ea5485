// The C API as a C application uses it: only <QELMaps/qelmaps.h>, a client
// on the library's thread, the simulator on a thread of its own over real
// TLS. Waits are on conditions with a generous bound, never on a clock.

#include <QELMaps/qelmaps.h>

#include <QELMaps/QELBroadcastMapsHost.h>

#include "../Support/Simulator.h"
#include "../Support/WaitUntil.h"

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

  template <class Predicate>
  bool waitFor(Predicate predicate) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 20s, predicate);
  }
  bool waitForEvent(qelmaps_event event) {
    return waitFor([&] { return std::count(events.begin(), events.end(), event) > 0; });
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
  {
    std::lock_guard lock(recorder->mutex);
    recorder->events.push_back(event);
    recorder->threads.push_back(std::this_thread::get_id());
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
}

void countLog(int, const char*, const char*, void* userData) { ++static_cast<Recorder*>(userData)->logLines; }

class CApiTest : public ::testing::Test {
 protected:
  // A configuration pointing at the simulator, every event recorded.
  void SetUp() override {
    config_ = qelmaps_config_create();
    ASSERT_NE(config_, nullptr);
    ASSERT_EQ(qelmaps_config_set_host(config_, "127.0.0.1"), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_port(config_, *simulator_.configuration().port), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_ca_file(config_, simulator_.caFile().c_str()), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_log_threshold(config_, 5), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_log_callback(config_, countLog, &recorder_), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_trace_callback(config_, recordTrace, &recorder_), QELMAPS_OK);
    for (int event = 0; event <= QELMAPS_EVENT_STATE_DID_CHANGE; ++event) {
      ASSERT_EQ(qelmaps_config_set_callback(config_, qelmaps_event(event), recordEvent, &recorder_), QELMAPS_OK);
    }
  }

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

TEST(CApiArgumentsTest, NullHandlesAndOutOfRangeValuesAreErrorsNotCrashes) {
  qelmaps_size size{};
  std::size_t count = 0;
  int flag = 0;
  qelmaps_map_data mapData{};
  qelmaps_picture* picture = nullptr;
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
        qelmaps_config_set_watch_network(nullptr, 1), qelmaps_backoff_default(QELMAPS_BACKOFF_EVENTS, nullptr)}) {
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
  for (qelmaps_error error : {qelmaps_config_set_port(config, 0), qelmaps_config_set_port(config, 65536),
                              qelmaps_config_set_port(config, -1), qelmaps_config_set_log_threshold(config, -1),
                              qelmaps_config_set_ca_pem(config, "", 0), qelmaps_config_set_max_pixels(config, 0),
                              qelmaps_config_set_max_map_entries(config, 0), qelmaps_config_set_cache_dir(config, "")}) {
    EXPECT_EQ(error, QELMAPS_ERROR_INVALID_ARGUMENT);
  }
  EXPECT_EQ(qelmaps_config_set_port(config, 65535), QELMAPS_OK);
  qelmaps_config_destroy(config);
  EXPECT_EQ(qelmaps_test_c_out_of_range(), 0);
}

TEST(CApiArgumentsTest, NamesAndVersions) {
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

  ASSERT_EQ(qelmaps_client_clear_resolution(client_), QELMAPS_OK);
  ASSERT_TRUE(recorder_.waitFor([&] {
    return qelmaps_client_current_resolution(client_, &size) == QELMAPS_ERROR_NO_RESOLUTION;
  }));

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
    EXPECT_EQ(std::count(recorder_.events.begin(), recorder_.events.end(), QELMAPS_EVENT_ERROR), 0);
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

}  // namespace
