#include "BroadcastMaps/Requests/_QELBroadcastMapsRequest.h"

#include "BroadcastMaps/Requests/_QELHostname.h"

#include <qel/core/QELHostname.h>

namespace qel::internal {

std::optional<std::string> QELBroadcastMapsRequest::requestURL() const {
  return QELGetURLWithHost(core::QELHostname::skelionHostname(), true, kServicePath, kMapsSubpath);
}

}  // namespace qel::internal
