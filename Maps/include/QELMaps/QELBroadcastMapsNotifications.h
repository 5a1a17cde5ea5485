#pragma once

#include <qel/Export.h>

namespace qel {

// Notifications of QELBroadcastMapsV1, posted on the default notification
// centre with the service as sender, once the run-loop callout in which the
// change happened has ended.

// The map offers another set of resolutions: read availableResolutions().
QEL_EXPORT extern const char* const QELBroadcastMapsAvailableResolutionsDidChangeNotification;
// mapImage() holds another picture, or none any more.
QEL_EXPORT extern const char* const QELBroadcastMapsImageDidChangeNotification;
// The service stopped receiving because another party announced it stopped.
//
// On the framework's internal centre this name belongs to the framework: each
// engine stands down when any other sender posts it, and then posts it
// itself, only from that handler. Never post it there. With two services
// alive, one such post would have their engines answer each other without
// end, until the stack runs out.
QEL_EXPORT extern const char* const QELBroadcastMapsImageDidStopReceivingImageNotification;
// There is no map data (the cabin server is out of reach or failed to answer).
QEL_EXPORT extern const char* const QELBroadcastMapsErrorNotification;

namespace internal {
// Reception started. Applications receive it too, but should not rely on it.
QEL_EXPORT extern const char* const QELBroadcastMapsImageDidStartReceivingImageNotification;
}  // namespace internal

}  // namespace qel
