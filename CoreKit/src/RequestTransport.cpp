#include "qel/core/RequestTransport.h"

#include "qel/core/QELLogging.h"

#include <qel/RunLoop.h>

namespace qel::core {
namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);

// Stands in until a real network transport is installed: every attempt fails,
// on the loop as a network failure would, so that callers see an error rather
// than a request that never ends.
class NoTransport : public RequestTransport {
 public:
  std::shared_ptr<TransportOperation> start(const QELRequest& request,
                                            Completion completion) override {
    QELLogging::log("No request transport installed; failing the request for %s.", 2, kDomain,
                    request.requestURL());
    auto operation = std::make_shared<Operation>();
    operation->completion = std::move(completion);
    RunLoop::current().post([operation] {
      if (!operation->completion) return;
      auto completion = std::move(operation->completion);
      operation->completion = nullptr;
      completion(TransportResult{
          Error{"QELRequestTransport", -1, "no request transport installed"}, {}});
    });
    return operation;
  }

 private:
  struct Operation : TransportOperation {
    void cancel() override { completion = nullptr; }
    Completion completion;
  };
};

// The transport used when none has been installed with setShared().
std::shared_ptr<RequestTransport> makeDefaultTransport() { return std::make_shared<NoTransport>(); }

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
