#pragma once

#include <qel/core/QELRequest.h>

#include <memory>
#include <optional>
#include <string>

namespace qel::internal {

// The map data request: GET of the flight map resource of the cabin server,
// which lists every published map picture.
//
// The core kit sends it again up to three times before giving up, and it
// carries no predicates: whatever a caller sets is dropped, because the
// resource has no query restrictions.
//
// Threading: the run loop thread of the queue that runs it.
//
//   auto request = core::QELRESTRequest::requestWithDelegate<QELBroadcastMapsRequest>(delegate);
//   queue->addRequest(request);
class QELBroadcastMapsRequest : public core::QELRESTRequest {
 public:
  static constexpr const char* kServicePath = "skelion/services";
  static constexpr const char* kMapsSubpath = "maps/v1/flight_map";

  int numberOfRetries() const override { return 3; }
  void setPredicates(std::optional<boost::json::value>) override {}
  std::optional<boost::json::value> predicates() const override { return std::nullopt; }
  // Composed anew at every call from the configured cabin host.
  std::optional<std::string> requestURL() const override;

 private:
  friend class core::QELRESTRequest;
  explicit QELBroadcastMapsRequest(std::weak_ptr<core::QELRequestDelegate> delegate)
      : QELRESTRequest(std::move(delegate)) {}
};

}  // namespace qel::internal
