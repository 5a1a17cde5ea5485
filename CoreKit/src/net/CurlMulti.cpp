#include "qel/core/net/CurlMulti.h"

#include <unistd.h>

#include <mutex>
#include <utility>
#include <vector>

namespace qel::core::net {
namespace asio = boost::asio;

namespace {

void initializeCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

// A socket curl asked us to watch. The descriptor only borrows the file
// descriptor: curl opens and closes it.
struct CurlMulti::Watch {
  Watch(asio::io_context& ioContext, curl_socket_t fd) : socket(fd), descriptor(ioContext, fd) {}
  ~Watch() { close(); }
  void close() {
    if (closed) return;
    closed = true;
    boost::system::error_code ignored;
    descriptor.cancel(ignored);
    (void)descriptor.release();
  }

  curl_socket_t socket;
  asio::posix::stream_descriptor descriptor;
  int wanted = 0;  // CURL_POLL_IN / CURL_POLL_OUT bits
  bool readPending = false;
  bool writePending = false;
  bool closed = false;
};

asio::execution_context::id CurlMulti::id;

CurlMulti::CurlMulti(asio::execution_context& context)
    : asio::execution_context::service(context),
      ioContext_(static_cast<asio::io_context&>(context)),
      timer_(ioContext_),
      idleTimer_(ioContext_) {
  initializeCurlOnce();
  // TLS sessions outlive any one transfer and any one multi handle, so new
  // connections can resume them. Everything runs on one thread: no locks.
  share_ = curl_share_init();
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  createMulti();
}

CurlMulti::~CurlMulti() { shutdown(); }

CurlMulti& CurlMulti::of(asio::io_context& ioContext) { return asio::use_service<CurlMulti>(ioContext); }

void CurlMulti::setLimits(const Limits& limits) {
  limits_ = limits;
  if (multi_) curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, limits_.maximumConnections);
}

void CurlMulti::createMulti() {
  multi_ = curl_multi_init();
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlMulti::onSocket);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlMulti::onTimer);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, limits_.maximumConnections);
}

void CurlMulti::destroyMulti() {
  if (!multi_) return;
  curl_multi_cleanup(multi_);
  multi_ = nullptr;
  timer_.cancel();
  for (auto& [socket, watch] : watches_) watch->close();
  watches_.clear();
}

void CurlMulti::hold(std::shared_ptr<void> owner) { held_.push_back(std::move(owner)); }

void CurlMulti::release(const void* owner) {
  std::erase_if(held_, [owner](const std::shared_ptr<void>& held) { return held.get() == owner; });
}

void CurlMulti::shutdown() {
  lifetime_.reset();
  // Released outside the vector: their destructors may come back here.
  auto held = std::exchange(held_, {});
  held.clear();
  idleTimer_.cancel();
  if (multi_) {
    // Whatever is still running goes quietly: the loop is going away.
    auto running = std::exchange(running_, {});
    for (auto& [easy, transfer] : running) {
      curl_multi_remove_handle(multi_, easy);
      curl_easy_setopt(easy, CURLOPT_SHARE, nullptr);
    }
  }
  destroyMulti();
  if (share_) curl_share_cleanup(std::exchange(share_, nullptr));
}

bool CurlMulti::add(CURL* easy, Done done) {
  threadChecker_.check();
  if (!multi_) return false;
  idleTimer_.cancel();
  curl_easy_setopt(easy, CURLOPT_SHARE, share_);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &CurlMulti::closeSocket);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
  if (curl_multi_add_handle(multi_, easy) != CURLM_OK) return false;
  running_.insert_or_assign(easy, Running{++nextSerial_, std::move(done)});
  return true;
}

void CurlMulti::remove(CURL* easy) {
  threadChecker_.check();
  if (running_.erase(easy) == 0) return;
  curl_multi_remove_handle(multi_, easy);
  if (running_.empty()) scheduleIdleClose();
}

void CurlMulti::closeIdleConnections() {
  threadChecker_.check();
  if (!running_.empty()) return;
  destroyMulti();
  createMulti();
}

void CurlMulti::scheduleIdleClose() {
  // curl drops connections older than CURLOPT_MAXAGE_CONN only when it looks
  // for one to reuse; a loop that stops asking would keep them for ever.
  idleTimer_.expires_after(limits_.maximumIdle);
  idleTimer_.async_wait([this](const boost::system::error_code& error) {
    if (!error && running_.empty()) closeIdleConnections();
  });
}

int CurlMulti::onSocket(CURL*, curl_socket_t socket, int what, void* self, void* socketData) {
  auto& multi = *static_cast<CurlMulti*>(self);
  multi.threadChecker_.check();
  const auto found = multi.watches_.find(socket);
  Watch* current = found == multi.watches_.end() ? nullptr : found->second.get();
  if (what == CURL_POLL_REMOVE) {
    // A late word about a socket whose number was already handed on is not
    // about the one we watch now.
    if (current && current == socketData) multi.forget(socket);
    return 0;
  }
  // curl tags sockets it has told us about; an untagged one is new, even when
  // its number is that of one curl closed without telling us (its resolver's
  // wake-up pipe).
  if (!current || socketData != current) {
    multi.forget(socket);
    auto watch = std::make_shared<Watch>(multi.ioContext_, socket);
    current = watch.get();
    multi.watches_.emplace(socket, std::move(watch));
    curl_multi_assign(multi.multi_, socket, current);
  }
  const auto& watch = multi.watches_.at(socket);
  watch->wanted = what;
  multi.arm(watch);
  return 0;
}

int CurlMulti::onTimer(CURLM*, long timeoutMs, void* self) {
  auto& multi = *static_cast<CurlMulti*>(self);
  multi.threadChecker_.check();
  if (timeoutMs < 0) {
    multi.timer_.cancel();
    return 0;
  }
  // Even a zero timeout is served from the loop: curl must not be re-entered
  // from its own callback.
  multi.timer_.expires_after(std::chrono::milliseconds(timeoutMs));
  multi.timer_.async_wait([&multi](const boost::system::error_code& error) {
    if (!error) multi.onTimeout();
  });
  return 0;
}

int CurlMulti::closeSocket(void* self, curl_socket_t socket) {
  // Stop watching before the number can be handed to a new socket.
  static_cast<CurlMulti*>(self)->forget(socket);
  return ::close(socket);
}

void CurlMulti::forget(curl_socket_t socket) {
  const auto found = watches_.find(socket);
  if (found == watches_.end()) return;
  found->second->close();
  watches_.erase(found);
}

void CurlMulti::arm(const std::shared_ptr<Watch>& watch) {
  if ((watch->wanted & CURL_POLL_IN) && !watch->readPending) {
    watch->readPending = true;
    watch->descriptor.async_wait(asio::posix::descriptor_base::wait_read,
                                 [this, watch](const boost::system::error_code& error) {
                                   watch->readPending = false;
                                   if (!error) onReady(watch, CURL_POLL_IN);
                                 });
  }
  if ((watch->wanted & CURL_POLL_OUT) && !watch->writePending) {
    watch->writePending = true;
    watch->descriptor.async_wait(asio::posix::descriptor_base::wait_write,
                                 [this, watch](const boost::system::error_code& error) {
                                   watch->writePending = false;
                                   if (!error) onReady(watch, CURL_POLL_OUT);
                                 });
  }
}

void CurlMulti::onReady(const std::shared_ptr<Watch>& watch, int direction) {
  threadChecker_.check();
  if (watch->closed || !(watch->wanted & direction)) return;
  act(watch->socket, direction == CURL_POLL_IN ? CURL_CSELECT_IN : CURL_CSELECT_OUT);
  // The action may have replaced or dropped this socket.
  if (!watch->closed) arm(watch);
}

void CurlMulti::onTimeout() {
  threadChecker_.check();
  act(CURL_SOCKET_TIMEOUT, 0);
}

void CurlMulti::act(curl_socket_t socket, int events) {
  if (!multi_) return;
  int stillRunning = 0;
  curl_multi_socket_action(multi_, socket, events, &stillRunning);
  finishDone();
}

void CurlMulti::finishDone() {
  // Collect first: a completion may add or remove transfers, and curl's
  // messages do not survive that.
  struct Finished {
    CURL* easy;
    std::uint64_t serial;
    CURLcode result;
  };
  std::vector<Finished> finished;
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    const auto found = running_.find(message->easy_handle);
    if (found != running_.end()) finished.push_back({found->first, found->second.serial, message->data.result});
  }
  for (const auto& [easy, serial, result] : finished) {
    // Removed by an earlier completion, perhaps with a new transfer at its
    // handle's address since.
    const auto found = running_.find(easy);
    if (found == running_.end() || found->second.serial != serial) continue;
    auto done = std::move(found->second.done);
    running_.erase(found);
    curl_multi_remove_handle(multi_, easy);
    if (running_.empty()) scheduleIdleClose();
    done(result);
  }
}

}  // namespace qel::core::net
