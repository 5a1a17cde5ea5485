#include "qel/core/net/HttpsRequestTransport.h"

#include "qel/core/QELLogging.h"
#include "qel/core/net/HttpsSession.h"
#include "qel/core/net/NetworkError.h"
#include "qel/core/net/TlsContext.h"

#include <qel/RunLoop.h>

namespace qel::core::net {
namespace {

constexpr std::string_view kDomain = qel::lastPathComponent(__FILE__);

// An attempt that failed before any I/O; its completion is already posted.
class FailedOperation : public TransportOperation {
 public:
  void cancel() override { cancelled_ = true; }
  bool isCancelled() const { return cancelled_; }

 private:
  bool cancelled_ = false;
};

}  // namespace

std::shared_ptr<TransportOperation> HttpsRequestTransport::start(const QELRequest& request, Completion completion) {
  auto& loop = RunLoop::current();
  // Failures found before any I/O are still reported from the loop, never
  // from within start(), and not at all once cancelled.
  auto failLater = [&](Error error) {
    auto operation = std::make_shared<FailedOperation>();
    loop.post([operation, completion = std::move(completion), error = std::move(error)]() mutable {
      if (!operation->isCancelled()) completion(TransportResult{std::move(error), {}});
    });
    return operation;
  };

  const QELConfiguration configuration =
      options_.configuration ? *options_.configuration : QELConfiguration::effective();
  auto decision = policy_.resolve(request, configuration);
  if (!decision.endpoint) {
    QELLogging::log("Request not sent: %s", 2, kDomain, decision.refusal);
    const auto code = request.requestURL() && !request.requestURL()->empty() ? NetworkErrorCode::RefusedURL
                                                                              : NetworkErrorCode::InvalidURL;
    return failLater(networkError(code, decision.refusal));
  }

  HttpsSession::Settings settings;
  settings.endpoint = std::move(*decision.endpoint);
  settings.caFile = configuration.caFile;
  if (settings.endpoint.tls) {
    std::string why;
    settings.tlsContext = TlsContext::forCaFile(configuration.caFile, &why);
    if (!settings.tlsContext) {
      QELLogging::log("Request to %s not sent: %s", 2, kDomain, settings.endpoint.url(), why);
      return failLater(networkError(NetworkErrorCode::TlsSetup, why));
    }
  }
  settings.bodyLimit = request.maximumResponseSize();
  settings.connectTimeout = options_.connectTimeout;
  settings.requestTimeout = options_.requestTimeout;
  settings.maximumIdlePerHost = options_.maximumIdlePerHost;
  settings.maximumIdleTime = options_.maximumIdleTime;

  auto session = std::make_shared<HttpsSession>(loop.context(), std::move(settings), std::move(completion));
  session->run();
  return session;
}

}  // namespace qel::core::net
