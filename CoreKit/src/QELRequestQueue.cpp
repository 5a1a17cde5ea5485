#include "qel/core/QELRequestQueue.h"

#include "qel/core/QELHostname.h"
#include "qel/core/QELLogging.h"
#include "qel/core/TransportMonitor.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <vector>

namespace qel::core {
namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);
constexpr const char* kErrorDomain = "QELRequestQueue";

TransportChannel channelOf(const QELRequest& request) {
  return request.kind() == QELRequest::Kind::ImageDownload ? TransportChannel::Picture : TransportChannel::MapData;
}

// One request from the moment it is added until it has ended.
struct Entry {
  enum class Phase { Waiting, Running, BackingOff, Done };

  explicit Entry(std::shared_ptr<QELRequest> r) : request(std::move(r)) {}

  std::shared_ptr<QELRequest> request;
  Phase phase = Phase::Waiting;
  RunLoop::TimePoint added{};  // when it entered the queue
  int failures = 0;           // failed attempts so far
  std::uint64_t attempt = 0;  // identifies the attempt in flight
  bool starting = false;      // inside transport->start()
  // Weak on purpose: the transport and the loop keep these alive while they
  // are pending, and strong references here would close a cycle through the
  // completions, which hold the queue's state.
  std::weak_ptr<TransportOperation> operation;
  std::weak_ptr<ScheduledCall> retryCall;
};

}  // namespace

// Everything the queue knows lives here, shared with the completions and
// timers in flight, so that requests outlive the queue object.
struct QELRequestQueue::State : std::enable_shared_from_this<State> {
  explicit State(std::shared_ptr<RequestTransport> t)
      : transport(std::move(t)), loop(&RunLoop::current()), loopLifetime(loop->lifetime()) {}

  // Posts to the queue's loop while it lives. Once it has ended (a service
  // kept in a static cancels its download at exit, after the loops of the
  // threads are gone) there is nothing left to run the callout.
  void post(std::function<void()> callout) {
    if (!loopLifetime.expired()) loop->post(std::move(callout));
  }

  void add(const std::shared_ptr<QELRequest>& request);
  void schedulePump();
  void pump();
  void startAttempt(const std::shared_ptr<Entry>& entry);
  void attemptDidComplete(const std::shared_ptr<Entry>& entry, std::uint64_t attempt,
                          TransportResult result);
  void retry(const std::shared_ptr<Entry>& entry);
  void cancel(const std::shared_ptr<Entry>& entry);
  // Takes the entry out of the queue and tells its delegate. Touches no member
  // after the delegate has been called.
  void complete(const std::shared_ptr<Entry>& entry, TransportResult result);
  void removeActive(const Entry* entry);
  bool hasFreeSlot() const {
    return maxConcurrent < 1 || active.size() < static_cast<std::size_t>(maxConcurrent);
  }

  std::shared_ptr<RequestTransport> transport;  // empty: the shared one at each attempt
  RunLoop* loop;
  std::weak_ptr<const void> loopLifetime;
  int maxConcurrent = -1;
  // Cancelled entries stay here until the pump or a compaction drops them:
  // erasing each from the middle would make a burst of cancels (every
  // engine superseding its download at once) quadratic in the queue length.
  std::deque<std::shared_ptr<Entry>> waiting;
  std::size_t cancelledWaiting = 0;
  std::vector<std::shared_ptr<Entry>> active;  // running or waiting to retry
  bool pumpPosted = false;
  std::uint64_t nextAttempt = 1;
  std::mt19937 random{std::random_device{}()};
};

void QELRequestQueue::State::add(const std::shared_ptr<QELRequest>& request) {
  if (!request) return;
  if (request->isCancelled()) {
    QELLogging::log("Ignoring a cancelled request for %s.", 4, kDomain, request->requestURL().value_or(""));
    return;
  }
  auto entry = std::make_shared<Entry>(request);
  entry->added = loop->now();
  std::weak_ptr<State> weakState = weak_from_this();
  std::weak_ptr<Entry> weakEntry = entry;
  request->setCancelHandler([weakState, weakEntry] {
    auto state = weakState.lock();
    auto entry = weakEntry.lock();
    if (state && entry) state->cancel(entry);
  });
  waiting.push_back(std::move(entry));
  schedulePump();
}

void QELRequestQueue::State::schedulePump() {
  if (pumpPosted) return;
  pumpPosted = true;
  post([self = shared_from_this()] {
    self->pumpPosted = false;
    self->pump();
  });
}

void QELRequestQueue::State::pump() {
  while (!waiting.empty() && hasFreeSlot()) {
    auto entry = std::move(waiting.front());
    waiting.pop_front();
    if (entry->phase == Entry::Phase::Done) {
      --cancelledWaiting;
      continue;
    }
    active.push_back(entry);
    startAttempt(entry);
  }
}

void QELRequestQueue::State::startAttempt(const std::shared_ptr<Entry>& entry) {
  entry->phase = Entry::Phase::Running;
  const std::uint64_t attempt = nextAttempt++;
  entry->attempt = attempt;

  const auto url = entry->request->requestURL();
  if (!url || url->empty()) {
    // Nothing to send and nothing a retry could change: fail it at once, from
    // the loop like any other outcome.
    QELLogging::log("Request has no URL; failing it.", 2, kDomain);
    post([self = shared_from_this(), entry] {
      self->complete(entry, TransportResult{Error{kErrorDomain, -1, "request has no URL"}, {}});
    });
    return;
  }

  QELLogging::log("Sending %s (attempt %d).", 5, kDomain, *url, entry->failures + 1);
  TransportMonitor::current().willConnect(channelOf(*entry->request));
  entry->starting = true;
  // A queue of no particular transport follows whatever is shared now.
  const auto attemptTransport = transport ? transport : RequestTransport::shared();
  entry->operation = attemptTransport->start(
      *entry->request, [self = shared_from_this(), entry, attempt](TransportResult result) {
        if (entry->starting) {
          // A transport must not complete from within start(); keep the
          // promise of loop-only callbacks anyway.
          self->post([self, entry, attempt, result = std::move(result)]() mutable {
            self->attemptDidComplete(entry, attempt, std::move(result));
          });
          return;
        }
        self->attemptDidComplete(entry, attempt, std::move(result));
      });
  entry->starting = false;
}

void QELRequestQueue::State::attemptDidComplete(const std::shared_ptr<Entry>& entry,
                                                std::uint64_t attempt, TransportResult result) {
  // A late completion of an attempt that was cancelled or superseded.
  if (entry->phase != Entry::Phase::Running || entry->attempt != attempt) return;
  entry->operation.reset();
  const TransportChannel channel = channelOf(*entry->request);
  auto& monitor = TransportMonitor::current();

  // Where the time went, from the moment the request was queued.
  if (!result.timing) result.timing.emplace().started = loop->now();
  result.timing->queued = entry->added;
  const std::string url = entry->request->requestURL().value_or("");
  if (!result.error) monitor.didSucceed(channel, {url, &result.data, result.validators, result.notModified, result.timing});
  const auto failure = [&] {
    auto described = transportFailure(*result.error, channel);
    described.url = url;
    described.timing = result.timing;
    return described;
  };
  if (result.error && entry->failures < entry->request->numberOfRetries()) {
    ++entry->failures;
    const auto delay = retryDelay(*QELConfiguration::current()->reconnect, entry->failures, result.retryAfter, random);
    monitor.didFail(channel, failure(), loop->now() + delay);
    QELLogging::log("Attempt %d for %s failed (%s); retrying in %d ms.", 4, kDomain, entry->failures,
                    entry->request->requestURL().value_or(""), result.error->localizedDescription,
                    static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(delay).count()));
    entry->phase = Entry::Phase::BackingOff;
    entry->retryCall =
        loop->schedule(delay, [self = shared_from_this(), entry] { self->retry(entry); });
    return;
  }
  if (result.error) monitor.didFail(channel, failure());
  complete(entry, std::move(result));
}

void QELRequestQueue::State::retry(const std::shared_ptr<Entry>& entry) {
  if (entry->phase != Entry::Phase::BackingOff) return;
  entry->retryCall.reset();
  startAttempt(entry);
}

void QELRequestQueue::State::cancel(const std::shared_ptr<Entry>& entry) {
  switch (entry->phase) {
    case Entry::Phase::Waiting:
      // Left in place, skipped by the pump; compacted once they are the
      // majority, so that a queue whose slot stays busy does not grow.
      if (++cancelledWaiting * 2 > waiting.size()) {
        entry->phase = Entry::Phase::Done;
        std::erase_if(waiting, [](const auto& e) { return e->phase == Entry::Phase::Done; });
        cancelledWaiting = 0;
      }
      break;
    case Entry::Phase::Running:
      if (auto operation = entry->operation.lock()) operation->cancel();
      entry->operation.reset();
      removeActive(entry.get());
      break;
    case Entry::Phase::BackingOff:
      if (auto call = entry->retryCall.lock()) call->cancel();
      entry->retryCall.reset();
      removeActive(entry.get());
      break;
    case Entry::Phase::Done:
      return;
  }
  entry->phase = Entry::Phase::Done;
  if (QELLogging::threshold() >= 5) {
    QELLogging::log("Cancelled the request for %s.", 5, kDomain, entry->request->requestURL());
  }
  // The cancel may come from deep inside someone's callback: start the next
  // request from a fresh callout.
  schedulePump();
}

void QELRequestQueue::State::complete(const std::shared_ptr<Entry>& entry, TransportResult result) {
  if (entry->phase == Entry::Phase::Done) return;
  entry->phase = Entry::Phase::Done;
  removeActive(entry.get());
  entry->request->setCancelHandler(nullptr);
  pump();

  // From here on only locals: the delegate may drop the queue, add requests
  // or cancel others.
  auto request = entry->request;
  auto delegate = request->delegate();
  if (!delegate) {
    QELLogging::log("Request for %s ended after its delegate went away.", 5, kDomain,
                    request->requestURL());
    return;
  }
  if (result.error) {
    delegate->requestDidFail(request, *result.error);
  } else {
    delegate->requestDidFinish(request, result.data);
  }
}

void QELRequestQueue::State::removeActive(const Entry* entry) {
  active.erase(std::remove_if(active.begin(), active.end(),
                              [entry](const std::shared_ptr<Entry>& e) { return e.get() == entry; }),
               active.end());
}

std::shared_ptr<QELRequestQueue> QELRequestQueue::create(std::shared_ptr<RequestTransport> transport) {
  return std::shared_ptr<QELRequestQueue>(new QELRequestQueue(std::move(transport)));
}

QELRequestQueue::QELRequestQueue(std::shared_ptr<RequestTransport> transport)
    : state_(std::make_shared<State>(std::move(transport))) {}

QELRequestQueue::~QELRequestQueue() = default;

void QELRequestQueue::setMaxConcurrentOperationCount(int count) {
  state_->maxConcurrent = count;
  // A higher limit may let waiting requests start.
  if (!state_->waiting.empty()) state_->schedulePump();
}

int QELRequestQueue::maxConcurrentOperationCount() const { return state_->maxConcurrent; }

void QELRequestQueue::addRequest(const std::shared_ptr<QELRequest>& request) { state_->add(request); }

std::size_t QELRequestQueue::operationCount() const {
  return state_->waiting.size() - state_->cancelledWaiting + state_->active.size();
}

RunLoop::Duration QELRequestQueue::retryDelay(const ReconnectPolicy& policy, int retry,
                                              std::optional<std::chrono::seconds> retryAfter, std::mt19937& random) {
  RunLoop::Duration delay = policy.requests.draw(retry - 1, random);
  // A server that says when it will be back is taken at its word, within reason.
  if (retryAfter) delay = std::max<RunLoop::Duration>(delay, std::clamp(*retryAfter, {}, policy.maximumRetryAfter));
  return delay;
}

}  // namespace qel::core
