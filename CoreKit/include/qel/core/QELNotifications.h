#pragma once

#include <qel/NotificationCenter.h>
#include <qel/NotificationQueue.h>

#include <string>

namespace qel::core {

// The core kit's own notification centre, distinct from the application's
// default centre, for frameworks to talk among themselves.
NotificationCenter& qelInternalCenter();

// Enqueues on `queue` a notification made of the given parts, with the
// queue's default coalescing (same name and same sender).
void qel_enqueueNotificationName(NotificationQueue& queue, std::string name,
                                 std::shared_ptr<Object> object, UserInfo userInfo,
                                 PostingStyle postingStyle);

}  // namespace qel::core
