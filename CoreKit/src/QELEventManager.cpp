#include "qel/core/QELEventManager.h"

#include "qel/core/QELLogging.h"
#include "qel/core/net/WebSocketEventTransport.h"

#include <qel/Format.h>

#include <algorithm>

namespace qel::core {

const char* const QELServiceEventClientConnected = "core.client.connected";
const char* const QELServiceEventClientDisconnected = "core.client.disconnected";

namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);

// The event channel a new manager uses: the secure WebSocket to the
// configured cabin server, which connects only when a host is configured.
std::unique_ptr<EventTransport> makeDefaultEventTransport() {
  return std::make_unique<net::WebSocketEventTransport>();
}

}  // namespace

std::shared_ptr<QELEvent> QELEvent::create(std::string name, UserInfo userInfo) {
  return std::shared_ptr<QELEvent>(new QELEvent(std::move(name), std::move(userInfo)));
}

std::string QELEvent::description() const {
  return stringWithFormat("<QELEvent %s %@>", name_, userInfo_.get());
}

struct QELEventManager::Registration {
  std::weak_ptr<Object> target;
  const Object* rawTarget;
  Action action;
  std::string eventName;
  bool removed = false;
};

QELEventManager::QELEventManager() : transport_(makeDefaultEventTransport()) {}

QELEventManager::~QELEventManager() { stopTransport(); }

QELEventManager& QELEventManager::defaultManager() {
  // Never destroyed: targets and transports may still call in while the
  // process exits.
  static QELEventManager* const manager = new QELEventManager;
  return *manager;
}

void QELEventManager::addTarget(const std::shared_ptr<Object>& target, Action action,
                                std::string_view eventName) {
  if (!target || !action) return;
  registrations_.push_back(std::make_shared<Registration>(
      Registration{target, target.get(), std::move(action), std::string(eventName), false}));
  updateTransportRunning();
}

void QELEventManager::removeTarget(const Object* target) {
  for (auto& registration : registrations_) {
    if (registration->rawTarget == target) registration->removed = true;
  }
  pruneRegistrations();
  updateTransportRunning();
}

std::size_t QELEventManager::targetCount() const {
  std::vector<const Object*> targets;
  for (const auto& registration : registrations_) {
    if (registration->removed || registration->target.expired()) continue;
    if (std::find(targets.begin(), targets.end(), registration->rawTarget) == targets.end()) {
      targets.push_back(registration->rawTarget);
    }
  }
  return targets.size();
}

void QELEventManager::setTransport(std::unique_ptr<EventTransport> transport) {
  replaceTransport(std::move(transport));
}

std::unique_ptr<EventTransport> QELEventManager::replaceTransport(
    std::unique_ptr<EventTransport> transport) {
  stopTransport();
  auto previous = std::move(transport_);
  transport_ = std::move(transport);
  updateTransportRunning();
  return previous;
}

void QELEventManager::transportDidConnect() {
  if (!transportRunning_ || connected_) return;
  connected_ = true;
  QELLogging::log("Connected to the event server.", 4, kDomain);
  dispatch(QELEvent::create(QELServiceEventClientConnected, nullptr));
}

void QELEventManager::transportDidDisconnect() {
  if (!connected_) return;
  connected_ = false;
  QELLogging::log("Disconnected from the event server.", 4, kDomain);
  dispatch(QELEvent::create(QELServiceEventClientDisconnected, nullptr));
}

void QELEventManager::transportDidReceiveEvent(const std::shared_ptr<QELEvent>& event) {
  if (!event || !transportRunning_) return;
  if (event->name() == QELServiceEventClientConnected ||
      event->name() == QELServiceEventClientDisconnected) {
    // Only the manager speaks of its own connection.
    QELLogging::log("Ignoring a server event named %s.", 2, kDomain, event->name());
    return;
  }
  dispatch(event);
}

void QELEventManager::dispatch(const std::shared_ptr<QELEvent>& event) {
  // A snapshot: targets registered during this dispatch are not called for
  // it, and removals mark the registration, which the loop below skips.
  const auto snapshot = registrations_;
  bool sawDeadTarget = false;
  for (const auto& registration : snapshot) {
    if (registration->removed || registration->eventName != event->name()) continue;
    auto target = registration->target.lock();
    if (!target) {
      registration->removed = true;
      sawDeadTarget = true;
      continue;
    }
    registration->action(event);
  }
  if (sawDeadTarget) {
    pruneRegistrations();
    updateTransportRunning();
  }
}

void QELEventManager::pruneRegistrations() {
  std::erase_if(registrations_, [](const std::shared_ptr<Registration>& registration) {
    return registration->removed || registration->target.expired();
  });
}

void QELEventManager::updateTransportRunning() {
  pruneRegistrations();
  const bool wanted = transport_ && !registrations_.empty();
  if (wanted && !transportRunning_) {
    transportRunning_ = true;
    transport_->start(*this);
  } else if (!wanted && transportRunning_) {
    stopTransport();
  }
}

void QELEventManager::stopTransport() {
  if (!transportRunning_) return;
  transportRunning_ = false;
  connected_ = false;
  if (transport_) transport_->stop();
}

}  // namespace qel::core
