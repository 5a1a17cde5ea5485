#pragma once

#include "qel/core/QELHostname.h"
#include "qel/core/RequestTransport.h"
#include "qel/core/net/UrlPolicy.h"

#include <chrono>
#include <memory>
#include <optional>

namespace qel::core::net {

// The request transport that goes over the network: GET over verified HTTPS
// (or HTTP where a service URL says so) on libcurl, run by the calling
// thread's run loop (see CurlMulti). Connections and TLS sessions are reused
// per server, HTTP/2 where the server offers it; redirects are refused, bodies
// are bounded by the request's maximum response size while they arrive, and
// non-2xx answers fail.
//
// Names are looked up on the loop (see Resolver: the configured host table,
// then the configured or the system's name servers), never by curl.
//
// Time limits: connecting (TCP and TLS) must finish within connectTimeout. A
// name with several addresses gets addressWindow per address but the last,
// so a dead first address costs a quarter of a second, and all of them
// together addressBudget. After that an attempt fails only when no byte arrives for
// inactivityTimeout: a large picture on a slow link may take as long as it
// keeps coming.
//
// One start() is one attempt; retrying is the queue's business.
//
// Threading: start() on the run loop thread; completions run on that loop.
//
//   RequestTransport::setShared(std::make_shared<HttpsRequestTransport>());
//   auto queue = QELRequestQueue::create();  // uses the shared transport
class HttpsRequestTransport : public RequestTransport {
 public:
  static constexpr std::chrono::seconds kConnectTimeout{2};
  static constexpr std::chrono::milliseconds kAddressWindow{250};
  static constexpr std::chrono::seconds kAddressBudget{5};
  static constexpr std::chrono::seconds kInactivityTimeout{10};
  static constexpr std::chrono::seconds kMaximumIdleTime{30};
  static constexpr long kMaximumConnections = 8;

  struct Options {
    std::chrono::milliseconds connectTimeout = kConnectTimeout;
    // Each address of a name but the last gets this long before the next one
    // is tried.
    std::chrono::milliseconds addressWindow = kAddressWindow;
    // The addresses of one name that never answer together get this long;
    // those not tried by then are not tried, so a long list of silent
    // addresses costs this, not a window each (one that refuses at once
    // costs next to nothing).
    std::chrono::milliseconds addressBudget = kAddressBudget;
    // Checked about once a second, so a silent peer fails within this and a
    // second more.
    std::chrono::milliseconds inactivityTimeout = kInactivityTimeout;
    // An unused connection is closed after this long.
    std::chrono::seconds maximumIdleTime = kMaximumIdleTime;
    // Connections kept open for reuse per run loop once their request ended;
    // those in use are not counted (the request queue bounds them), the
    // oldest idle one is closed when one more would exceed it.
    long maximumConnections = kMaximumConnections;
    UrlPolicy::Options urlPolicy;
    // Used instead of QELConfiguration::current() when set.
    std::optional<QELConfiguration> configuration;
  };

  HttpsRequestTransport() = default;
  explicit HttpsRequestTransport(Options options) : options_(std::move(options)), policy_(options_.urlPolicy) {}
  HttpsRequestTransport(const HttpsRequestTransport&) = delete;
  HttpsRequestTransport& operator=(const HttpsRequestTransport&) = delete;

  std::shared_ptr<TransportOperation> start(const QELRequest& request, Completion completion) override;

 private:
  Options options_;
  UrlPolicy policy_;
};

}  // namespace qel::core::net
