#pragma once

#include <qel/Data.h>

#include <memory>
#include <optional>
#include <string>

namespace qel::core {

// What a server said to identify one answer, so that a later request can ask
// "has it changed?" instead of fetching it again.
struct Validators {
  std::string etag;          // the ETag header, as sent (quotes included)
  std::string lastModified;  // the Last-Modified header, as sent
  bool empty() const { return etag.empty() && lastModified.empty(); }
  bool operator==(const Validators&) const = default;
};

// Answers kept across requests (and across runs, when the keeper writes them
// to disk), which the request transport revalidates with the server: a
// picture request for a source held here carries If-None-Match and
// If-Modified-Since, and a "304 Not Modified" is answered with the body held
// here, as if it had been downloaded. Whoever keeps answers installs one
// for the loop's thread; without one every request fetches.
//
// Threading: the thread it is installed on (the run loop's).
//
//   class Disk : public ResponseCache { ... };
//   ResponseCache::setCurrent(std::make_shared<Disk>(directory));
class ResponseCache {
 public:
  virtual ~ResponseCache() = default;

  // The validators of the answer held for `url` (the request's URL as the
  // requester wrote it), if one is held and the server sent any.
  virtual std::optional<Validators> validatorsFor(const std::string& url) = 0;
  // The body held for `url`, asked for when the server answered 304; empty
  // when it can no longer be read.
  virtual std::optional<Data> bodyFor(const std::string& url) = 0;

  // This thread's cache, or null.
  static std::shared_ptr<ResponseCache> current();
  // Installs `cache` for this thread; null removes it.
  static void setCurrent(std::shared_ptr<ResponseCache> cache);
};

}  // namespace qel::core
