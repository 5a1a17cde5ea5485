#include <QELMaps/QELBroadcastMapsNotifications.h>

namespace qel {

// The same strings name the engines' notifications on the internal centre
// and the services' on the application's centre.
const char* const QELBroadcastMapsAvailableResolutionsDidChangeNotification =
    "BROADCAST_MAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE";
const char* const QELBroadcastMapsImageDidChangeNotification = "BROADCAST_MAPS_IMAGE_DID_CHANGE";
const char* const QELBroadcastMapsImageDidStopReceivingImageNotification =
    "BROADCAST_MAPS_IMAGE_DID_STOP_RECEIVING_IMAGE";
const char* const QELBroadcastMapsErrorNotification = "BROADCAST_MAPS_ERROR";

namespace internal {
const char* const QELBroadcastMapsImageDidStartReceivingImageNotification =
    "BROADCAST_MAPS_IMAGE_DID_START_RECEIVING_IMAGE";
}  // namespace internal

}  // namespace qel
