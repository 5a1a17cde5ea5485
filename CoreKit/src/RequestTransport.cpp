#include "qel/core/RequestTransport.h"

#include "qel/core/net/HttpsRequestTransport.h"

namespace qel::core {
namespace {

// The transport used when none has been installed with setShared():
// applications talk to the cabin server over verified HTTPS.
std::shared_ptr<RequestTransport> makeDefaultTransport() {
  return std::make_shared<net::HttpsRequestTransport>();
}

std::shared_ptr<RequestTransport>& sharedTransport() {
  static auto* const transport = new std::shared_ptr<RequestTransport>;
  return *transport;
}

}  // namespace

std::shared_ptr<RequestTransport> RequestTransport::shared() {
  auto& transport = sharedTransport();
  if (!transport) transport = makeDefaultTransport();
  return transport;
}

void RequestTransport::setShared(std::shared_ptr<RequestTransport> transport) {
  // Empty brings the default back on next use.
  sharedTransport() = std::move(transport);
}

}  // namespace qel::core
