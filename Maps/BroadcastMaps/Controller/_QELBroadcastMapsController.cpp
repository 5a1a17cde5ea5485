#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"

#include "BroadcastMaps/Requests/_QELBroadcastMapsRequest.h"

#include <qel/Format.h>
#include <qel/core/QELHostname.h>
#include <qel/core/QELLogging.h>

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>

#include <algorithm>
#include <charconv>
#include <string_view>

namespace qel::internal {

using core::QELLogging;

namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);

// The class-wide state. Never destroyed, like the core kit's centre and
// event manager: an application may keep its service in a static, and the
// service reaches this state from its destructor, which can run after every
// static of this library is gone. No guard: everything runs on one thread.
struct ClassState {
  std::shared_ptr<QELBroadcastMapsController> sharedBroadcastMapsController;
  std::shared_ptr<core::QELRequestQueue> sharedQueue;
  std::int32_t ownersCount = 0;
  // The loop the shared instance and queue were made on.
  std::weak_ptr<const void> loop;
};

ClassState& classState() {
  static auto* const state = new ClassState;
  // The shared instance and queue post to the loop they were made on: once it
  // has ended they go, and whoever comes next (a service on another thread,
  // as a host runs them) starts afresh rather than on a loop that is gone.
  if (state->loop.expired()) {
    state->sharedBroadcastMapsController.reset();
    state->sharedQueue.reset();
  }
  return *state;
}

// Where a record and the text it is parsed from live: one arena per record,
// sized after the text, released with the last reference to anything in it.
// Parsing into it and freeing it cost a fraction of a heap allocation per
// node, and the parsed image objects become the entries without a copy.
boost::json::storage_ptr recordStorage(std::size_t textSize) {
  return boost::json::make_shared_resource<boost::json::monotonic_resource>(2 * textSize);
}

// The server's image object made a record entry in place: null "width",
// "height" and "src" are dropped, every other field is kept as it came.
void normaliseEntry(boost::json::object& entry) {
  // One pass finds whether there is anything to drop at all; servers rarely
  // send nulls, and three lookups per entry would cost more than the rest.
  bool anyNull = false;
  for (const auto& field : entry) anyNull = anyNull || field.value().is_null();
  if (!anyNull) return;
  for (const char* field : {"width", "height", "src"}) {
    if (const auto* value = entry.if_contains(field); value && value->is_null()) {
      entry.stable_erase(field);
    }
  }
}

// The platform's description of a width or height, as "%@" renders it;
// integers, by far the usual case, without going through the formatter.
void appendDescription(std::string& key, const boost::json::value* value) {
  char digits[24];
  std::to_chars_result end{};
  if (value && value->is_int64()) {
    end = std::to_chars(digits, digits + sizeof digits, value->get_int64());
  } else if (value && value->is_uint64()) {
    end = std::to_chars(digits, digits + sizeof digits, value->get_uint64());
  } else {
    key += describe(value);
    return;
  }
  key.append(digits, end.ptr);
}

// "%@x%@" of the entry's width and height, as the platform describes them
// ("800x600", "1024.5x768", "(null)x600").
std::string recordKey(const boost::json::object& entry) {
  std::string key;
  appendDescription(key, entry.if_contains("width"));
  key += 'x';
  appendDescription(key, entry.if_contains("height"));
  return key;
}

// The images made record entries, keyed, moved out of the parsed array
// rather than copied. A later image with the same key replaces an earlier
// one where that one stood.
boost::json::object keyedEntries(boost::json::array& images) {
  boost::json::object entries(images.storage());
  entries.reserve(images.size());
  for (auto& image : images) {
    auto& entry = image.get_object();
    normaliseEntry(entry);
    const auto key = recordKey(entry);
    entries.insert_or_assign(key, std::move(entry));
  }
  return entries;
}

// `update` merged into `current`: the current entries in their order, each
// replaced whole where the update has its key, then the entries new to the
// record in the update's order.
boost::json::object mergedRecord(const boost::json::object& current, boost::json::object update) {
  // A server that lists every picture each time replaces every entry in the
  // same order: the update is the new record as it is.
  // Both ends given: records of other lengths are told apart before any
  // key is read, never by reading past the shorter one.
  const bool sameKeys = std::equal(current.begin(), current.end(), update.begin(), update.end(),
                                   [](const auto& a, const auto& b) { return a.key() == b.key(); });
  if (sameKeys) return update;

  boost::json::object merged(update.storage());
  merged.reserve(current.size() + update.size());
  for (const auto& item : current) {
    // Entries are objects, so a moved-from (null) value marks one taken.
    auto* replacement = update.if_contains(item.key());
    if (replacement) {
      merged.emplace(item.key(), std::move(*replacement));
    } else {
      merged.emplace(item.key(), item.value());
    }
  }
  for (auto& item : update) {
    if (!item.value().is_null()) merged.emplace(item.key(), std::move(item.value()));
  }
  return merged;
}

// Why an images array cannot become record entries, or empty when it can.
// Input like this is refused whole, so that nothing of it is merged partly.
std::string_view invalidImagesReason(const boost::json::array& images) {
  for (const auto& image : images) {
    if (!image.is_object()) return "an element of \"images\" is not an object";
  }
  return {};
}

// Why a record of this many entries is refused, or empty when it is not:
// each entry costs every engine work, and a server is not to decide how much.
std::string tooManyEntries(std::size_t entries) {
  const std::size_t limit = *core::QELConfiguration::current()->maxMapEntries;
  if (entries <= limit) return {};
  return stringWithFormat("the record would hold %d entries, more than the %d allowed", entries, limit);
}

}  // namespace

// MARK: - Shared instance and owners

std::shared_ptr<QELBroadcastMapsController> QELBroadcastMapsController::defaultController() {
  if (!classState().sharedBroadcastMapsController) {
    auto controller = std::shared_ptr<QELBroadcastMapsController>(new QELBroadcastMapsController);
    // The static holds the instance only once init has run, as an
    // assignment of the initialiser's result would.
    if (controller->init()) {
      classState().loop = RunLoop::current().lifetime();
      classState().sharedBroadcastMapsController = std::move(controller);
    }
  }
  return classState().sharedBroadcastMapsController;
}

std::shared_ptr<core::QELRequestQueue> QELBroadcastMapsController::requestQueue() {
  auto& state = classState();
  if (!state.sharedQueue) {
    state.loop = RunLoop::current().lifetime();
    state.sharedQueue = core::QELRequestQueue::create();
    state.sharedQueue->setMaxConcurrentOperationCount(1);
  }
  return state.sharedQueue;
}

void QELBroadcastMapsController::own() { ++classState().ownersCount; }

void QELBroadcastMapsController::free() {
  if (classState().ownersCount == 0) return;
  if (--classState().ownersCount == 0) {
    // reset() empties the static before the old value goes, so a teardown
    // that runs here already finds the class without a shared instance.
    classState().sharedBroadcastMapsController.reset();
    classState().sharedQueue.reset();
  }
}

std::int32_t QELBroadcastMapsController::ownersCount() { return classState().ownersCount; }

// MARK: - Life cycle

QELBroadcastMapsController::QELBroadcastMapsController() : mapInfo_(*this, "mapInfo") {}

bool QELBroadcastMapsController::init() {
  reloadData();
  subscribeToEventServer();
  return true;
}

QELBroadcastMapsController::~QELBroadcastMapsController() {
  QELLogging::log("%s called.", 5, kDomain, "-[_QELBroadcastMapsController dealloc]");
  unsubscribeFromEventServer();
}

void QELBroadcastMapsController::setMapInfo(MapInfo mapInfo) {
  threadChecker_.check();
  mapInfo_.set(std::move(mapInfo));
}

// MARK: - Event server

void QELBroadcastMapsController::subscribeToEventServer() {
  auto self = sharedFrom(this);
  core::QELEventManager::defaultManager().addTarget(
      self, &QELBroadcastMapsController::receivedMapsdataEvent, kMapUpdateEventName);
  core::QELEventManager::defaultManager().addTarget(
      self, &QELBroadcastMapsController::receivedDidConnectToEventServer,
      core::QELServiceEventClientConnected);
  core::QELEventManager::defaultManager().addTarget(
      self, &QELBroadcastMapsController::receivedDidDisconnectFromEventServer,
      core::QELServiceEventClientDisconnected);
}

void QELBroadcastMapsController::unsubscribeFromEventServer() {
  core::QELEventManager::defaultManager().removeTarget(this);
}

void QELBroadcastMapsController::receivedDidConnectToEventServer() {
  QELLogging::log("%s called.", 4, kDomain,
                  "-[_QELBroadcastMapsController receivedDidConnectToEventServer]");
  // The record stays until the reload answers; it replaces it whole.
  reloadData();
}

void QELBroadcastMapsController::receivedDidDisconnectFromEventServer() {
  QELLogging::log("%s called.", 4, kDomain,
                  "-[_QELBroadcastMapsController receivedDidDisconnectFromEventServer]");
  // Without the event channel updates would be missed: say at once that the
  // data can no longer be trusted.
  setMapInfo(nullptr);
}

void QELBroadcastMapsController::receivedMapsdataEvent(const std::shared_ptr<core::QELEvent>& event) {
  QELLogging::log("%s called.", 4, kDomain,
                  "-[_QELBroadcastMapsController receivedMapsdataEvent:]");
  processEvent(event->name(), event->userInfo());
}

void QELBroadcastMapsController::processEvent(const std::string& eventName, const UserInfo& data) {
  threadChecker_.check();
  QELLogging::log("%s called. Event name: %@. Data: %@", 4, kDomain,
                  "-[_QELBroadcastMapsController processEvent:withData:]", eventName, data);

  // Only "images" decides whether an event is valid; the name is not checked.
  const boost::json::value* images = data ? data->if_contains("images") : nullptr;
  if (!images) {
    QELLogging::log("[%@ %d] Invalid event received from server.", 1, kDomain, kDomain, 93);
    return;
  }
  if (!images->is_string()) {
    QELLogging::log("[%@ %d] Invalid event received from server: %s.", 1, kDomain, kDomain,
                    __LINE__, "\"images\" is not text");
    return;
  }

  boost::system::error_code parseError;
  const auto storage = recordStorage(images->get_string().size());
  boost::json::value parsed = boost::json::parse(images->get_string(), parseError, storage);
  // Text that is not JSON, or JSON that is a bare number, string or literal,
  // is dropped without a word: such updates are noise, not a broken server.
  if (parseError || !(parsed.is_array() || parsed.is_object())) return;

  auto* array = parsed.if_array();
  const std::string_view reason =
      array ? invalidImagesReason(*array) : std::string_view("\"images\" is not a JSON array");
  if (!reason.empty()) {
    QELLogging::log("[%@ %d] Invalid event received from server: %s.", 1, kDomain, kDomain,
                    __LINE__, reason);
    return;
  }

  // An update merges into the current record: entries it does not mention
  // stay. With no record there is nothing to merge into, and the update's own
  // entries are lost on purpose: the result is an empty record, which a
  // reload replaces.
  const MapInfo current = mapInfo();
  boost::json::object merged(storage);
  if (current) merged = mergedRecord(*current, keyedEntries(*array));
  if (const auto excess = tooManyEntries(merged.size()); !excess.empty()) {
    QELLogging::log("[%@ %d] Invalid event received from server: %s.", 1, kDomain, kDomain, __LINE__, excess);
    return;
  }
  setMapInfo(std::make_shared<const boost::json::object>(std::move(merged)));
}

// MARK: - REST

void QELBroadcastMapsController::reloadData() {
  QELLogging::log("%s called.", 4, kDomain, "-[_QELBroadcastMapsController reloadData]");
  // Pending reloads are not cancelled: each answer is processed in turn and
  // the last one decides the record.
  auto request = core::QELRESTRequest::requestWithDelegate<QELBroadcastMapsRequest>(sharedFrom(this));
  requestQueue()->addRequest(request);
}

void QELBroadcastMapsController::requestDidFinish(const std::shared_ptr<core::QELRequest>&,
                                                  const Data& data) {
  threadChecker_.check();
  QELLogging::log("%s called.", 4, kDomain,
                  "-[_QELBroadcastMapsController requestDidFinish:withData:]");
  boost::system::error_code parseError;
  auto parsed = boost::json::parse(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()),
                                   parseError, recordStorage(data.size()));
  // A body that does not parse keeps the record as it is: unlike a failed
  // request, it says nothing about whether the data is still current.
  if (parseError || !(parsed.is_array() || parsed.is_object())) return;
  auto* response = parsed.if_object();
  if (!response) {
    QELLogging::log("[%@ %d] Invalid map data received from server: %s.", 1, kDomain, kDomain,
                    __LINE__, "the body is not a JSON object");
    return;
  }
  processRestResponse(std::move(*response));
}

void QELBroadcastMapsController::requestDidFail(const std::shared_ptr<core::QELRequest>&,
                                                const Error&) {
  threadChecker_.check();
  QELLogging::log("%s called.", 4, kDomain,
                  "-[_QELBroadcastMapsController requestDidFail:withError:]");
  setMapInfo(nullptr);
}

void QELBroadcastMapsController::processRestResponse(boost::json::object response) {
  QELLogging::log("%s called.", 4, kDomain,
                  "-[_QELBroadcastMapsController processRestResponse:]");
  boost::json::array noImages;
  auto* images = response.if_contains("images");
  auto* array = images ? images->if_array() : &noImages;
  const std::string_view reason =
      array ? invalidImagesReason(*array) : std::string_view("\"images\" is not an array");
  if (!reason.empty()) {
    QELLogging::log("[%@ %d] Invalid map data received from server: %s.", 1, kDomain, kDomain,
                    __LINE__, reason);
    return;
  }

  // A full answer replaces the record whole.
  auto record = keyedEntries(*array);
  if (const auto excess = tooManyEntries(record.size()); !excess.empty()) {
    QELLogging::log("[%@ %d] Invalid map data received from server: %s.", 1, kDomain, kDomain, __LINE__, excess);
    return;
  }
  setMapInfo(std::make_shared<const boost::json::object>(std::move(record)));
}

}  // namespace qel::internal
