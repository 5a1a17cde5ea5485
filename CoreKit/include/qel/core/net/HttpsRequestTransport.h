#pragma once

#include "qel/core/QELHostname.h"
#include "qel/core/RequestTransport.h"
#include "qel/core/net/UrlPolicy.h"

#include <chrono>
#include <memory>
#include <optional>

namespace qel::core::net {

// The request transport that goes over the network: GET over HTTPS (or HTTP
// where a service URL says so), keep-alive connections reused per host, a
// connect timeout and a whole-request timeout, redirects refused, bodies
// bounded by the request's maximum response size, non-2xx answers failed.
//
// One start() is one attempt; retrying is the queue's business.
//
// Threading: start() on the run loop thread; completions run on that loop.
//
//   RequestTransport::setShared(std::make_shared<HttpsRequestTransport>());
//   auto queue = QELRequestQueue::create();  // uses the shared transport
class HttpsRequestTransport : public RequestTransport {
 public:
  static constexpr std::chrono::seconds kConnectTimeout{5};
  static constexpr std::chrono::seconds kRequestTimeout{15};
  static constexpr std::size_t kMaximumIdlePerHost = 4;
  static constexpr std::chrono::seconds kMaximumIdleTime{30};

  struct Options {
    std::chrono::steady_clock::duration connectTimeout = kConnectTimeout;
    std::chrono::steady_clock::duration requestTimeout = kRequestTimeout;
    std::size_t maximumIdlePerHost = kMaximumIdlePerHost;
    std::chrono::steady_clock::duration maximumIdleTime = kMaximumIdleTime;
    UrlPolicy::Options urlPolicy;
    // Used instead of QELConfiguration::effective() when set.
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
