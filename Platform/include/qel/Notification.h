#pragma once

#include "qel/Object.h"

#include <boost/json/object.hpp>

#include <memory>
#include <string>

namespace qel {

// Immutable user information of a notification or an event; empty means none.
using UserInfo = std::shared_ptr<const boost::json::object>;

// One posted notification: a name, the object that sent it (possibly none)
// and optional user information. Immutable and cheap to copy.
class Notification {
 public:
  Notification(std::string name, std::shared_ptr<Object> sender, UserInfo userInfo = nullptr)
      : name_(std::move(name)), sender_(std::move(sender)), userInfo_(std::move(userInfo)) {}

  const std::string& name() const { return name_; }
  // In Foundation terms, the notification's "object".
  const std::shared_ptr<Object>& sender() const { return sender_; }
  const UserInfo& userInfo() const { return userInfo_; }

 private:
  std::string name_;
  std::shared_ptr<Object> sender_;
  UserInfo userInfo_;
};

}  // namespace qel
