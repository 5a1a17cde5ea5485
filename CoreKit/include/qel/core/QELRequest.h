#pragma once

#include <qel/Data.h>
#include <qel/Object.h>

#include <boost/json/value.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace qel::core {

class QELRequest;

// Told how a request ended. A cancelled request never calls its delegate.
class QELRequestDelegate {
 public:
  virtual ~QELRequestDelegate() = default;
  virtual void requestDidFinish(const std::shared_ptr<QELRequest>& request, const Data& data) = 0;
  virtual void requestDidFail(const std::shared_ptr<QELRequest>& request, const Error& error) = 0;
};

// One request to the cabin server, run by a QELRequestQueue. The delegate is
// held weakly: a request whose delegate is gone finishes silently.
//
// Threading: the run loop thread of the queue that runs it.
class QELRequest : public Object {
 public:
  enum class Kind { REST, ImageDownload };

  Kind kind() const { return kind_; }
  // The URL to fetch; empty when it cannot be composed.
  virtual std::optional<std::string> requestURL() const = 0;
  // How many times a failed attempt is sent again before the delegate hears
  // of the failure.
  virtual int numberOfRetries() const { return 0; }
  // The largest body accepted.
  virtual std::size_t maximumResponseSize() const = 0;

  std::shared_ptr<QELRequestDelegate> delegate() const { return delegate_.lock(); }

  // Stops the request; its delegate is never called afterwards.
  void cancel();
  bool isCancelled() const { return cancelled_; }

  // The queue installs this to learn of a cancel while the request runs.
  void setCancelHandler(std::function<void()> handler) { cancelHandler_ = std::move(handler); }

 protected:
  QELRequest(Kind kind, std::weak_ptr<QELRequestDelegate> delegate)
      : kind_(kind), delegate_(std::move(delegate)) {}

 private:
  Kind kind_;
  std::weak_ptr<QELRequestDelegate> delegate_;
  bool cancelled_ = false;
  std::function<void()> cancelHandler_;
};

// A GET of a JSON resource of a cabin service.
class QELRESTRequest : public QELRequest {
 public:
  static constexpr std::size_t kMaximumResponseSize = 1024 * 1024;

  // Makes a request of the subclass R for `delegate`. R's constructor takes
  // the delegate and befriends QELRESTRequest.
  template <class R>
  static std::shared_ptr<R> requestWithDelegate(const std::shared_ptr<QELRequestDelegate>& delegate) {
    return std::shared_ptr<R>(new R(delegate));
  }

  int numberOfRetries() const override { return 0; }
  // Query restrictions sent with the request; none by default.
  virtual std::optional<boost::json::value> predicates() const { return predicates_; }
  virtual void setPredicates(std::optional<boost::json::value> predicates) {
    predicates_ = std::move(predicates);
  }
  std::size_t maximumResponseSize() const override { return kMaximumResponseSize; }

 protected:
  explicit QELRESTRequest(std::weak_ptr<QELRequestDelegate> delegate)
      : QELRequest(Kind::REST, std::move(delegate)) {}

 private:
  std::optional<boost::json::value> predicates_;
};

// A download of an image's bytes. The URL is either absolute or a path on
// the cabin server ("/maps/...").
class QELImageDownloadRequest : public QELRequest {
 public:
  static constexpr std::size_t kMaximumResponseSize = 16 * 1024 * 1024;

  static std::shared_ptr<QELImageDownloadRequest> initWithImageURL(
      std::string imageURL, const std::shared_ptr<QELRequestDelegate>& delegate);

  const std::string& imageURL() const { return imageURL_; }
  std::optional<std::string> requestURL() const override { return imageURL_; }
  std::size_t maximumResponseSize() const override { return kMaximumResponseSize; }

 private:
  QELImageDownloadRequest(std::string imageURL, std::weak_ptr<QELRequestDelegate> delegate)
      : QELRequest(Kind::ImageDownload, std::move(delegate)), imageURL_(std::move(imageURL)) {}

  std::string imageURL_;
};

}  // namespace qel::core
