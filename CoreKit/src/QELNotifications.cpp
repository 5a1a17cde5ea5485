#include "qel/core/QELNotifications.h"

namespace qel::core {

NotificationCenter& qelInternalCenter() {
  // Never destroyed: observers may still be unregistering while the process
  // exits, and a centre torn down before them would be touched after its end.
  static NotificationCenter* const center = new NotificationCenter;
  return *center;
}

void qel_enqueueNotificationName(NotificationQueue& queue, std::string name,
                                 std::shared_ptr<Object> object, UserInfo userInfo,
                                 PostingStyle postingStyle) {
  queue.enqueueNotification(Notification(std::move(name), std::move(object), std::move(userInfo)),
                            postingStyle);
}

}  // namespace qel::core
