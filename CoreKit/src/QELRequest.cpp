#include "qel/core/QELRequest.h"

namespace qel::core {

void QELRequest::cancel() {
  if (cancelled_) return;
  cancelled_ = true;
  // Taken out first: the handler may install another one or drop this request.
  auto handler = std::move(cancelHandler_);
  cancelHandler_ = nullptr;
  if (handler) handler();
}

std::shared_ptr<QELImageDownloadRequest> QELImageDownloadRequest::initWithImageURL(
    std::string imageURL, const std::shared_ptr<QELRequestDelegate>& delegate) {
  return std::shared_ptr<QELImageDownloadRequest>(
      new QELImageDownloadRequest(std::move(imageURL), delegate));
}

}  // namespace qel::core
