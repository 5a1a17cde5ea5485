// The C API as a C application uses it: only <QELMaps/qelmaps.h>, a client
// on the library's thread, the simulator on a thread of its own over real
// TLS. Waits are on conditions with a generous bound, never on a clock.

#include <QELMaps/qelmaps.h>

#include <QELMaps/QELBroadcastMapsHost.h>

#include "../Support/Simulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
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
  std::vector<std::string> logs;
  std::deque<qelmaps_task*> tasks;  // handed over by the dispatch hook
  bool destroyed = false;
  bool calledAfterDestroy = false;
  std::function<void(qelmaps_client*, qelmaps_event)> onEvent;

  std::size_t count(qelmaps_event event) {
    std::lock_guard lock(mutex);
    return static_cast<std::size_t>(std::count(events.begin(), events.end(), event));
  }
  template <class Predicate>
  bool waitFor(Predicate predicate) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 20s, predicate);
  }
  bool waitForEvent(qelmaps_event event) {
    return waitFor([&] { return std::count(events.begin(), events.end(), event) > 0; });
  }
};

void recordEvent(qelmaps_client* client, qelmaps_event event, void* userData) {
  auto* recorder = static_cast<Recorder*>(userData);
  {
    std::lock_guard lock(recorder->mutex);
    if (recorder->destroyed) recorder->calledAfterDestroy = true;
    recorder->events.push_back(event);
    recorder->threads.push_back(std::this_thread::get_id());
  }
  if (recorder->onEvent) recorder->onEvent(client, event);
  recorder->changed.notify_all();
}

void queueTask(qelmaps_task* task, void* userData) {
  auto* recorder = static_cast<Recorder*>(userData);
  {
    std::lock_guard lock(recorder->mutex);
    recorder->tasks.push_back(task);
  }
  recorder->changed.notify_all();
}

void recordLog(int level, const char* domain, const char* message, void* userData) {
  auto* recorder = static_cast<Recorder*>(userData);
  std::lock_guard lock(recorder->mutex);
  recorder->logs.push_back(std::to_string(level) + " " + domain + " " + message);
}

class CApiTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (client_) {
      EXPECT_EQ(qelmaps_client_destroy(client_), QELMAPS_OK);
    }
    qelmaps_config_destroy(config_);
    drainTasks();
  }

  // A configuration pointing at the simulator, every event recorded.
  void configure(bool dispatch) {
    config_ = qelmaps_config_create();
    ASSERT_NE(config_, nullptr);
    ASSERT_EQ(qelmaps_config_set_host(config_, "127.0.0.1"), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_port(config_, *simulator_.configuration().port), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_ca_file(config_, simulator_.caFile().c_str()), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_log_threshold(config_, 5), QELMAPS_OK);
    ASSERT_EQ(qelmaps_config_set_log_callback(config_, recordLog, &recorder_), QELMAPS_OK);
    for (int event = 0; event <= QELMAPS_EVENT_STATE_DID_CHANGE; ++event) {
      ASSERT_EQ(qelmaps_config_set_callback(config_, qelmaps_event(event), recordEvent, &recorder_), QELMAPS_OK);
    }
    if (dispatch) {
      ASSERT_EQ(qelmaps_config_set_dispatch(config_, queueTask, &recorder_), QELMAPS_OK);
    }
  }

  // Runs queued deliveries on this thread until `predicate` holds.
  template <class Predicate>
  bool runTasksUntil(Predicate predicate) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!predicate()) {
      qelmaps_task* task = nullptr;
      {
        std::unique_lock lock(recorder_.mutex);
        if (!recorder_.changed.wait_until(lock, deadline, [&] { return !recorder_.tasks.empty(); })) return false;
        task = recorder_.tasks.front();
        recorder_.tasks.pop_front();
      }
      qelmaps_task_run(task);
    }
    return true;
  }

  // Only once the client is gone: no thread queues any more.
  void drainTasks() {
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
  qelmaps_picture* picture = nullptr;
  for (qelmaps_error error : {
           qelmaps_config_set_host(nullptr, "h"), qelmaps_config_set_ca_file(nullptr, "f"),
           qelmaps_config_set_event_path(nullptr, "/e"), qelmaps_config_set_port(nullptr, 1),
           qelmaps_config_set_log_threshold(nullptr, 1), qelmaps_config_set_log_callback(nullptr, nullptr, nullptr),
           qelmaps_config_set_callback(nullptr, QELMAPS_EVENT_ERROR, nullptr, nullptr),
           qelmaps_config_set_dispatch(nullptr, nullptr, nullptr), qelmaps_client_create(nullptr, nullptr),
           qelmaps_client_start(nullptr), qelmaps_client_stop(nullptr),
           qelmaps_client_choose_resolution(nullptr, 1024, 768), qelmaps_client_clear_resolution(nullptr),
           qelmaps_client_resolutions(nullptr, &size, 1, &count), qelmaps_client_current_resolution(nullptr, &size),
           qelmaps_client_state(nullptr, &flag, &flag), qelmaps_client_picture(nullptr, &picture)}) {
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

  qelmaps_config* config = qelmaps_config_create();
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(qelmaps_config_set_host(config, nullptr), QELMAPS_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(qelmaps_client_create(config, nullptr), QELMAPS_ERROR_NULL_ARGUMENT);
  for (int port : {0, -1, 65536}) {
    EXPECT_EQ(qelmaps_config_set_port(config, port), QELMAPS_ERROR_INVALID_ARGUMENT);
  }
  EXPECT_EQ(qelmaps_config_set_port(config, 65535), QELMAPS_OK);
  EXPECT_EQ(qelmaps_config_set_log_threshold(config, -1), QELMAPS_ERROR_INVALID_ARGUMENT);
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

  using HostEvent = qel::QELBroadcastMapsHostEvent;
  const std::pair<qelmaps_event, HostEvent> pairs[] = {
      {QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE, HostEvent::AvailableResolutionsDidChange},
      {QELMAPS_EVENT_IMAGE_DID_CHANGE, HostEvent::ImageDidChange},
      {QELMAPS_EVENT_IMAGE_DID_STOP_RECEIVING_IMAGE, HostEvent::ImageDidStopReceivingImage},
      {QELMAPS_EVENT_ERROR, HostEvent::Error},
      {QELMAPS_EVENT_IMAGE_DID_START_RECEIVING_IMAGE, HostEvent::ImageDidStartReceivingImage},
      {QELMAPS_EVENT_STATE_DID_CHANGE, HostEvent::StateDidChange},
  };
  for (auto [event, hostEvent] : pairs) {
    EXPECT_EQ(qelmaps_event_name(event), qel::QELBroadcastMapsHost::notificationName(hostEvent));
  }
  EXPECT_STREQ(qelmaps_service_version(), "03.19.02.00");
  EXPECT_STRNE(qelmaps_version(), "");
}

TEST_F(CApiTest, ReceivesResolutionsAndTheChosenPictureOnTheLibraryThread) {
  configure(false);
  ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
  qelmaps_client* second = nullptr;
  EXPECT_EQ(qelmaps_client_create(config_, &second), QELMAPS_ERROR_BUSY);
  EXPECT_EQ(second, nullptr);

  qelmaps_picture* picture = nullptr;
  EXPECT_EQ(qelmaps_client_picture(client_, &picture), QELMAPS_ERROR_NO_PICTURE);
  qelmaps_size size{};
  for (auto [w, h] : {std::pair{0.0, 768.0}, {1024.0, -1.0}, {NAN, 768.0}, {1024.0, INFINITY}}) {
    EXPECT_EQ(qelmaps_client_choose_resolution(client_, w, h), QELMAPS_ERROR_INVALID_ARGUMENT);
  }
  ASSERT_EQ(qelmaps_client_choose_resolution(client_, 800, 600), QELMAPS_OK);
  ASSERT_EQ(qelmaps_client_start(client_), QELMAPS_OK);
  ASSERT_TRUE(recorder_.waitForEvent(QELMAPS_EVENT_IMAGE_DID_CHANGE));

  ASSERT_EQ(qelmaps_client_picture(client_, &picture), QELMAPS_OK);
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

  ASSERT_EQ(qelmaps_client_clear_resolution(client_), QELMAPS_OK);
  ASSERT_TRUE(recorder_.waitFor([&] {
    return qelmaps_client_current_resolution(client_, &size) == QELMAPS_ERROR_NO_RESOLUTION;
  }));

  // No map data once the server is gone.
  simulator_.stop();
  ASSERT_TRUE(recorder_.waitForEvent(QELMAPS_EVENT_ERROR));
  EXPECT_EQ(qelmaps_client_state(client_, nullptr, &hasMapData), QELMAPS_OK);
  EXPECT_EQ(hasMapData, 0);
  EXPECT_EQ(qelmaps_client_resolutions(client_, nullptr, 0, &count), QELMAPS_OK);
  EXPECT_EQ(count, 0u);

  // The picture outlives the client; every callback ran on one thread that
  // is not ours, and none after destroy returned.
  qelmaps_picture* kept = qelmaps_picture_retain(picture);
  qelmaps_picture_release(picture);
  ASSERT_EQ(qelmaps_client_destroy(client_), QELMAPS_OK);
  client_ = nullptr;
  {
    std::lock_guard lock(recorder_.mutex);
    recorder_.destroyed = true;
    for (auto id : recorder_.threads) EXPECT_EQ(id, recorder_.threads.front());
    EXPECT_NE(recorder_.threads.front(), std::this_thread::get_id());
    EXPECT_FALSE(recorder_.logs.empty());
  }
  EXPECT_EQ(qelmaps_picture_pixels(kept)[3], 255);  // opaque map, read after the client is gone
  qelmaps_picture_release(kept);

  // Another client may be made once the first is gone.
  ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
}

TEST_F(CApiTest, DispatchedDeliveriesRunOnTheApplicationThreadAndNeverAfterDestroy) {
  configure(true);
  ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
  ASSERT_EQ(qelmaps_client_start(client_), QELMAPS_OK);
  ASSERT_TRUE(runTasksUntil([&] { return recorder_.count(QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE) > 0; }));
  for (auto id : recorder_.threads) EXPECT_EQ(id, std::this_thread::get_id());

  // Inside a callback the client reads what was announced.
  recorder_.onEvent = [](qelmaps_client* client, qelmaps_event event) {
    if (event != QELMAPS_EVENT_IMAGE_DID_CHANGE) return;
    qelmaps_picture* picture = nullptr;
    EXPECT_EQ(qelmaps_client_picture(client, &picture), QELMAPS_OK);
    qelmaps_picture_release(picture);
  };
  ASSERT_TRUE(runTasksUntil([&] { return recorder_.count(QELMAPS_EVENT_IMAGE_DID_CHANGE) > 0; }));

  // Deliveries queued but not run when the client goes: running them later
  // calls nothing.
  ASSERT_EQ(qelmaps_client_stop(client_), QELMAPS_OK);
  ASSERT_TRUE(recorder_.waitFor([&] { return !recorder_.tasks.empty(); }));
  ASSERT_EQ(qelmaps_client_destroy(client_), QELMAPS_OK);
  client_ = nullptr;
  recorder_.destroyed = true;  // the library thread is gone: nothing else touches the recorder
  for (auto* task : std::exchange(recorder_.tasks, {})) qelmaps_task_run(task);
  EXPECT_FALSE(recorder_.calledAfterDestroy);
}

TEST_F(CApiTest, ADispatchedCallbackMayDestroyTheClientButOneOnTheLibraryThreadMayNot) {
  for (bool dispatch : {true, false}) {
    SCOPED_TRACE(dispatch ? "dispatched" : "library thread");
    recorder_.events.clear();
    configure(dispatch);
    std::atomic<qelmaps_error> result{QELMAPS_OK};
    recorder_.onEvent = [&](qelmaps_client* client, qelmaps_event event) {
      if (event != QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE) return;
      result = qelmaps_client_destroy(client);
      if (result == QELMAPS_OK) client_ = nullptr;
    };
    ASSERT_EQ(qelmaps_client_create(config_, &client_), QELMAPS_OK);
    ASSERT_EQ(qelmaps_client_start(client_), QELMAPS_OK);
    if (dispatch) {
      ASSERT_TRUE(runTasksUntil([&] { return client_ == nullptr; }));
      drainTasks();
    } else {
      ASSERT_TRUE(recorder_.waitForEvent(QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE));
      EXPECT_EQ(result, QELMAPS_ERROR_WRONG_THREAD);
      recorder_.onEvent = nullptr;
      ASSERT_EQ(qelmaps_client_destroy(client_), QELMAPS_OK);
      client_ = nullptr;
    }
    qelmaps_config_destroy(config_);
    config_ = nullptr;
  }
}

}  // namespace
