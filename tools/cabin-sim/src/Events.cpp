#include "cabinsim/Events.h"

#include <boost/json.hpp>

namespace cabinsim {

std::string makeUpdateEvent(const std::string& imagesJsonText) {
  boost::json::object userInfo;
  userInfo["images"] = imagesJsonText;
  boost::json::object event;
  event["name"] = kMapUpdateEventName;
  event["userInfo"] = std::move(userInfo);
  return boost::json::serialize(event);
}

const char* toString(MalformedKind kind) {
  switch (kind) {
    case MalformedKind::InvalidJson: return "invalid JSON";
    case MalformedKind::NotAnObject: return "not an object";
    case MalformedKind::ImagesNotAString: return "images not a string";
    case MalformedKind::ImagesTextInvalid: return "images text not JSON";
    case MalformedKind::Oversize: return "over-size frame";
  }
  return "unknown";
}

std::string makeMalformedEvent(MalformedKind kind, const std::string& imagesJsonText) {
  switch (kind) {
    case MalformedKind::InvalidJson: {
      const std::string whole = makeUpdateEvent(imagesJsonText);
      return whole.substr(0, whole.size() / 2);
    }
    case MalformedKind::NotAnObject: {
      boost::json::array top;
      top.emplace_back(kMapUpdateEventName);
      top.emplace_back(imagesJsonText);
      return boost::json::serialize(top);
    }
    case MalformedKind::ImagesNotAString: {
      boost::json::object userInfo;
      boost::system::error_code ec;
      userInfo["images"] = boost::json::parse(imagesJsonText, ec);
      boost::json::object event;
      event["name"] = kMapUpdateEventName;
      event["userInfo"] = std::move(userInfo);
      return boost::json::serialize(event);
    }
    case MalformedKind::ImagesTextInvalid:
      return makeUpdateEvent(imagesJsonText.substr(0, imagesJsonText.size() / 2) + "}{");
    case MalformedKind::Oversize: {
      boost::json::object userInfo;
      userInfo["images"] = imagesJsonText;
      userInfo["padding"] = std::string(kMaxEventFrameBytes, 'x');
      boost::json::object event;
      event["name"] = kMapUpdateEventName;
      event["userInfo"] = std::move(userInfo);
      return boost::json::serialize(event);
    }
  }
  return {};
}

}  // namespace cabinsim
