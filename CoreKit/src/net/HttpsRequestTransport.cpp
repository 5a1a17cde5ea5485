#include "qel/core/net/HttpsRequestTransport.h"

#include "qel/core/QELLogging.h"
#include "qel/core/net/CurlMulti.h"
#include "qel/core/net/NetworkError.h"
#include "qel/core/net/Resolver.h"
#include "qel/core/net/TlsContext.h"

#include <qel/RunLoop.h>

#include <curl/curl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <iterator>
#include <utility>

namespace qel::core::net {
namespace {

constexpr std::string_view kDomain = qel::lastPathComponent(__FILE__);

// An attempt that failed before any I/O; its completion is already posted.
class FailedOperation : public TransportOperation {
 public:
  void cancel() override { cancelled_ = true; }
  bool isCancelled() const { return cancelled_; }

 private:
  bool cancelled_ = false;
};

struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

// One GET on one easy handle, run by the loop's CurlMulti. It is its own
// TransportOperation; the multi keeps it alive while it runs.
class CurlAttempt : public TransportOperation, public std::enable_shared_from_this<CurlAttempt> {
 public:
  CurlAttempt(CurlMulti& multi, Endpoint endpoint, std::size_t bodyLimit, RequestTransport::Completion completion)
      : multi_(multi),
        endpoint_(std::move(endpoint)),
        url_(endpoint_.url()),
        bodyLimit_(bodyLimit),
        completion_(std::move(completion)),
        easy_(curl_easy_init()) {}

  // Asks the server whether the answer `cache` holds for `key` is still
  // current, instead of fetching it again.
  void revalidate(std::shared_ptr<ResponseCache> cache, std::string key, Validators validators) {
    cache_ = std::move(cache);
    cacheKey_ = std::move(key);
    held_ = std::move(validators);
  }
  CurlAttempt(const CurlAttempt&) = delete;
  CurlAttempt& operator=(const CurlAttempt&) = delete;
  ~CurlAttempt() override { releaseEasy(); }

  RequestTransport::Completion takeCompletion() { return std::move(completion_); }

  // False, with `why`, when curl would not take the request.
  bool start(boost::asio::io_context& ioContext, const HttpsRequestTransport::Options& options,
             const QELConfiguration& configuration, std::optional<std::string> trust, std::string* why) {
    options_ = options;
    trust_ = std::move(trust);
    timing_.started = std::chrono::steady_clock::now();
    if (Resolver::addressLiteral(endpoint_.host)) return launch(why);
    // A name is looked up here, on the loop, with the configured host table
    // and name servers, and its addresses are handed to curl one at a time:
    // curl 7.88 does not move on from an address that never answers within
    // one address family, and its own lookups would not heed the settings.
    Resolver::Options lookup;
    lookup.fixedHosts = configuration.resolve;
    lookup.servers = configuration.dnsServers;
    resolver_ = std::make_unique<Resolver>(ioContext, std::move(lookup));
    // The loop's multi keeps the attempt through its lookup: a strong
    // reference in the lookup's own callback would hold the resolver that
    // holds it, for ever if the loop ends first.
    lifetime_ = multi_.lifetime();
    multi_.hold(shared_from_this());
    resolver_->resolve(endpoint_.host, endpoint_.port,
                       [weakSelf = weak_from_this()](const std::string& error, Resolver::Endpoints endpoints) {
                         if (auto self = weakSelf.lock()) self->onResolved(error, std::move(endpoints));
                       });
    return true;
  }

  void onResolved(const std::string& error, const Resolver::Endpoints& endpoints) {
    const auto self = shared_from_this();
    if (lifetime_.lock()) multi_.release(this);
    if (!completion_) return;
    timing_.nameLookupDone = std::chrono::steady_clock::now();
    if (!error.empty()) return fail(networkError(NetworkErrorCode::Resolve, error));
    const std::string prefix = endpoint_.host + ":" + std::to_string(endpoint_.port) + ":";
    for (const auto& endpoint : endpoints) {
      const auto address = endpoint.address();
      // Appended piece by piece: GCC 12 warns falsely (bug 105329) about
      // "literal" + std::string when optimising.
      std::string candidate = prefix;
      if (address.is_v6()) candidate += '[';
      candidate += address.to_string();
      if (address.is_v6()) candidate += ']';
      candidates_.push_back(std::move(candidate));
    }
    std::string why;
    if (!launch(&why)) fail(networkError(NetworkErrorCode::Io, why));
  }

  bool launch(std::string* why) {
    releaseEasy();
    easy_ = curl_easy_init();
    if (!easy_) {
      *why = "libcurl could not make a transfer";
      return false;
    }
    Slist resolve;
    auto add = [&](const std::string& entry) {
      if (curl_slist* grown = curl_slist_append(resolve.get(), entry.c_str())) {
        (void)resolve.release();
        resolve.reset(grown);
      }
    };
    const bool lastAddress = candidate_ + 1 >= candidates_.size();
    if (!candidates_.empty()) add(candidates_[candidate_]);
    resolveList_ = std::move(resolve);
    const auto& options = options_;
    const auto& trust = trust_;
    CURL* easy = easy_;
    curl_easy_setopt(easy, CURLOPT_URL, url_.c_str());
    // Only the scheme the URL policy allowed, and no redirect to any other.
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, endpoint_.tls ? "https" : "http");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "QELMaps/1.0");
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorText_);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, this);

    // Verification is never optional: peer and name (IP literals against
    // the certificate's addresses), TLS 1.2 at least.
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    if (trust) {
      // The CA file's contents, not its path: curl reuses a connection or a
      // TLS session only under the same trust, so a rewritten file never
      // reuses what was verified under the old one. And only that CA.
      curl_blob blob{const_cast<char*>(trust->data()), trust->size(), CURL_BLOB_COPY};
      curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob);
      curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    }

    auto connectTimeout =
        lastAddress ? options.connectTimeout : std::min(options.connectTimeout, options.addressWindow);
    if (candidates_.size() > 1) {
      // The addresses of one name share one budget for waiting, however many
      // it lists; one that refuses at once costs next to nothing of it.
      const auto left = options.addressBudget - silentTime_;
      connectTimeout = std::clamp(left, std::chrono::milliseconds(1), connectTimeout);
    }
    attemptStarted_ = std::chrono::steady_clock::now();
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTimeout.count()));
    // No total deadline: an attempt fails when nothing arrives for the
    // inactivity window. curl's own low-speed check averages over seconds,
    // which lets a peer that sent a little and went silent hang on; it stays
    // only as the once-a-second wake-up that runs our progress check.
    inactivityTimeout_ = options.inactivityTimeout;
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME,
                     static_cast<long>(std::chrono::ceil<std::chrono::seconds>(inactivityTimeout_).count()) + 5L);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &CurlAttempt::onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlAttempt::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    lastActivity_ = std::chrono::steady_clock::now();
    curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, static_cast<long>(options.maximumIdleTime.count()));
    // Several requests to one HTTP/2 server share its connection.
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
    // Names come to curl already looked up; should it ever look one up, a
    // lookup still running when the attempt goes is left to finish alone.
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
    if (resolveList_) curl_easy_setopt(easy, CURLOPT_RESOLVE, resolveList_.get());
    conditions_.reset();
    if (cache_) {
      auto condition = [&](const char* name, const std::string& value) {
        if (value.empty()) return;
        const std::string line = std::string(name) + ": " + value;
        if (curl_slist* grown = curl_slist_append(conditions_.get(), line.c_str())) {
          (void)conditions_.release();
          conditions_.reset(grown);
        }
      };
      condition("If-None-Match", held_.etag);
      condition("If-Modified-Since", held_.lastModified);
      curl_easy_setopt(easy, CURLOPT_HTTPHEADER, conditions_.get());
    }

    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(bodyLimit_));
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlAttempt::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);

    lifetime_ = multi_.lifetime();
    if (!multi_.add(easy, [self = shared_from_this()](CURLcode result) { self->onDone(result); })) {
      *why = "libcurl refused the transfer";
      return false;
    }
    return true;
  }

  void cancel() override {
    if (!completion_) return;
    completion_ = nullptr;
    const auto self = shared_from_this();  // the multi may hold the last reference
    if (lifetime_.lock()) {
      multi_.remove(easy_);
      multi_.release(this);
    }
    if (resolver_) resolver_->cancel();
    releaseEasy();
  }

 private:
  static std::size_t onHeader(char* data, std::size_t, std::size_t size, void* context) {
    auto& attempt = *static_cast<CurlAttempt*>(context);
    attempt.lastActivity_ = std::chrono::steady_clock::now();
    const std::string_view line(data, size);
    if (auto coding = unaskedCoding(line)) {
      attempt.unaskedCoding_ = std::move(*coding);
      return 0;  // aborts the transfer before any of the body arrives
    }
    // A status line starts the headers of another answer (after a 100).
    if (line.starts_with("HTTP/")) attempt.validators_ = {};
    if (auto value = headerValue(line, "ETag")) attempt.validators_.etag = std::move(*value);
    if (auto value = headerValue(line, "Last-Modified")) attempt.validators_.lastModified = std::move(*value);
    return size;
  }

  // The value of header `name` if `line` is that header; bounded, since a
  // server decides how long it is.
  static std::optional<std::string> headerValue(std::string_view line, std::string_view name) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos || !equalsIgnoringCase(line.substr(0, colon), name)) return std::nullopt;
    auto value = line.substr(colon + 1);
    const auto first = value.find_first_not_of(" \t");
    if (first == std::string_view::npos) return std::nullopt;
    value = value.substr(first, value.find_last_not_of(" \t\r\n") - first + 1);
    if (value.size() > 256) return std::nullopt;
    return std::string(value);
  }

  // We ask for no coding, so the only ones an answer may carry are
  // "identity" and, for the transfer, "chunked". curl would inflate a gzip
  // transfer coding on its own, far beyond what was sent, before the body's
  // cap could stop it; a content coding it would hand over still compressed,
  // which no caller could read.
  static std::optional<std::string> unaskedCoding(std::string_view line) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const auto name = line.substr(0, colon);
    const bool transfer = equalsIgnoringCase(name, "Transfer-Encoding");
    if (!transfer && !equalsIgnoringCase(name, "Content-Encoding")) return std::nullopt;
    std::string_view values = line.substr(colon + 1);
    while (!values.empty()) {
      const auto comma = values.find(',');
      auto value = values.substr(0, comma);
      values = comma == std::string_view::npos ? std::string_view() : values.substr(comma + 1);
      const auto first = value.find_first_not_of(" \t\r\n");
      if (first == std::string_view::npos) continue;
      value = value.substr(first, value.find_last_not_of(" \t\r\n") - first + 1);
      if (equalsIgnoringCase(value, "identity") || (transfer && equalsIgnoringCase(value, "chunked"))) continue;
      return std::string(name) + ": " + std::string(value);
    }
    return std::nullopt;
  }

  static bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
      return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    });
  }

  static int onProgress(void* context, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
    auto& attempt = *static_cast<CurlAttempt*>(context);
    const auto now = std::chrono::steady_clock::now();
    curl_off_t requestSent = 0;
    curl_easy_getinfo(attempt.easy_, CURLINFO_PRETRANSFER_TIME_T, &requestSent);
    // Connecting has its own timeout; the window opens once the request goes out.
    if (requestSent == 0 || received != attempt.received_ || sent != attempt.sent_) {
      attempt.received_ = received;
      attempt.sent_ = sent;
      attempt.lastActivity_ = now;
      return 0;
    }
    if (now - attempt.lastActivity_ < attempt.inactivityTimeout_) return 0;
    attempt.inactive_ = true;
    return 1;  // aborts the transfer
  }

  static std::size_t onBody(char* data, std::size_t, std::size_t size, void* context) {
    auto& attempt = *static_cast<CurlAttempt*>(context);
    attempt.lastActivity_ = std::chrono::steady_clock::now();
    long status = 0;
    curl_easy_getinfo(attempt.easy_, CURLINFO_RESPONSE_CODE, &status);
    // A refusal's body is of no use; only its status is reported.
    if (status < 200 || status >= 300) return size;
    if (attempt.body_.size() + size > attempt.bodyLimit_) {
      attempt.tooLarge_ = true;
      return 0;  // aborts the transfer now, before the rest arrives
    }
    attempt.body_.insert(attempt.body_.end(), data, data + size);
    return size;
  }

  // The handle goes as soon as the transfer ends: it refers to the loop's
  // shared TLS session cache, which may go before this attempt does.
  void releaseEasy() {
    if (easy_) curl_easy_cleanup(std::exchange(easy_, nullptr));
  }

  void onDone(CURLcode result) {
    if (!completion_) return;
    readTiming();
    if (result != CURLE_OK) {
      curl_off_t connected = 0;
      curl_easy_getinfo(easy_, CURLINFO_CONNECT_TIME_T, &connected);
      const bool unreached = connected == 0 && (result == CURLE_COULDNT_CONNECT || result == CURLE_OPERATION_TIMEDOUT);
      if (result == CURLE_OPERATION_TIMEDOUT) {
        silentTime_ += std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - attemptStarted_);
      }
      const bool budgetLeft = silentTime_ < options_.addressBudget;
      if (unreached && candidate_ + 1 < candidates_.size() && budgetLeft) {
        QELLogging::log("GET %s: %s did not answer, trying the next address", 4, kDomain, url_,
                        candidates_[candidate_]);
        ++candidate_;
        std::string why;
        if (launch(&why)) return;
      }
      auto error = errorFor(result);
      // A connect that timed out says the server is out of reach, not that
      // it stopped answering.
      if (unreached && result == CURLE_OPERATION_TIMEDOUT) {
        error = networkError(NetworkErrorCode::Connect, error.localizedDescription);
      }
      if (unreached && candidate_ + 1 < candidates_.size() && !budgetLeft) {
        error = networkError(NetworkErrorCode::Connect,
                             "addresses that did not answer used up the " +
                                 std::to_string(options_.addressBudget.count()) + " ms allowed (" +
                                 std::to_string(candidate_ + 1) + " of " + std::to_string(candidates_.size()) +
                                 " tried)");
      }
      releaseEasy();
      return fail(std::move(error));
    }
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    long connects = 0;
    curl_easy_getinfo(easy_, CURLINFO_NUM_CONNECTS, &connects);
    char* redirect = nullptr;
    curl_easy_getinfo(easy_, CURLINFO_REDIRECT_URL, &redirect);
    const std::optional<std::string> location = redirect ? std::optional<std::string>(redirect) : std::nullopt;
    // curl reads both forms of Retry-After (seconds or a date); 0 when absent.
    curl_off_t retryAfterSeconds = 0;
    curl_easy_getinfo(easy_, CURLINFO_RETRY_AFTER, &retryAfterSeconds);
    std::optional<std::chrono::seconds> retryAfter;
    if (retryAfterSeconds > 0) retryAfter = std::chrono::seconds(std::min<curl_off_t>(retryAfterSeconds, 86400));
    releaseEasy();
    if (status == 304 && cache_) return finishNotModified();
    if (status >= 300 && status < 400) {
      return fail(networkError(NetworkErrorCode::Redirect,
                               "redirect refused: status " + std::to_string(status) +
                                   (location ? " to \"" + QELLogging::escaped(*location) + "\"" : std::string())));
    }
    if (status < 200 || status >= 300) {
      return fail(Error{kHTTPStatusErrorDomain, static_cast<int>(status),
                        "the server answered with status " + std::to_string(status)},
                  retryAfter);
    }
    QELLogging::log("GET %s: %d, %lu bytes on a %s connection", 4, kDomain, url_, static_cast<int>(status),
                    static_cast<unsigned long>(body_.size()), connects > 0 ? "new" : "kept-alive");
    TransportResult answer{std::nullopt, std::move(body_)};
    answer.validators = std::move(validators_);
    finish(std::move(answer));
  }

  // The server says the held answer is current: it is the answer.
  void finishNotModified() {
    auto held = cache_->bodyFor(cacheKey_);
    if (!held) {
      return fail(networkError(NetworkErrorCode::Io, "the server said the held copy is current, but it is gone"));
    }
    QELLogging::log("GET %s: 304, the held %lu bytes are current", 4, kDomain, url_,
                    static_cast<unsigned long>(held->size()));
    TransportResult result{std::nullopt, std::move(*held)};
    result.validators = held_;
    result.notModified = true;
    finish(std::move(result));
  }

  Error errorFor(CURLcode result) const {
    std::string detail = errorText_[0] ? std::string(errorText_) : std::string(curl_easy_strerror(result));
    switch (result) {
      case CURLE_WRITE_ERROR:
        if (!unaskedCoding_.empty()) {
          return networkError(NetworkErrorCode::Io,
                              "the answer uses a coding that was not asked for (" +
                                  QELLogging::escaped(unaskedCoding_) + ")");
        }
        [[fallthrough]];
      case CURLE_FILESIZE_EXCEEDED:
        if (result == CURLE_FILESIZE_EXCEEDED || tooLarge_) {
          return networkError(NetworkErrorCode::TooLarge,
                              "the response is larger than the " + std::to_string(bodyLimit_) + " bytes allowed");
        }
        return networkError(NetworkErrorCode::Io, detail);
      case CURLE_COULDNT_RESOLVE_HOST:
        return networkError(NetworkErrorCode::Resolve, detail);
      case CURLE_COULDNT_CONNECT: {
        long osError = 0;
        curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &osError);
        return networkError(osError == ECONNREFUSED ? NetworkErrorCode::Refused : NetworkErrorCode::Connect, detail);
      }
      case CURLE_ABORTED_BY_CALLBACK:
        if (!inactive_) return networkError(NetworkErrorCode::Io, detail);
        return networkError(NetworkErrorCode::Timeout,
                            "nothing arrived for " + std::to_string(inactivityTimeout_.count()) + " ms");
      case CURLE_OPERATION_TIMEDOUT:
        return networkError(NetworkErrorCode::Timeout, detail);
      case CURLE_PEER_FAILED_VERIFICATION: {
        // The verifier's own words where it has them; curl's for a name
        // that does not match, which curl checks itself.
        long verdict = X509_V_OK;
        curl_easy_getinfo(easy_, CURLINFO_SSL_VERIFYRESULT, &verdict);
        if (verdict != X509_V_OK) detail = X509_verify_cert_error_string(verdict);
        return networkError(NetworkErrorCode::Certificate, detail);
      }
      case CURLE_SSL_ISSUER_ERROR:
      case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        return networkError(NetworkErrorCode::Certificate, detail);
      case CURLE_SSL_CONNECT_ERROR:
      case CURLE_SSL_CACERT_BADFILE:
      case CURLE_SSL_CERTPROBLEM:
      case CURLE_SSL_CIPHER:
        return networkError(NetworkErrorCode::Handshake, detail);
      case CURLE_UNSUPPORTED_PROTOCOL:
        return networkError(NetworkErrorCode::RefusedURL, detail);
      case CURLE_URL_MALFORMAT:
        return networkError(NetworkErrorCode::InvalidURL, detail);
      default:
        return networkError(NetworkErrorCode::Io, detail);
    }
  }

  void fail(Error error, std::optional<std::chrono::seconds> retryAfter = std::nullopt) {
    QELLogging::log("GET %s failed: %s", 2, kDomain, url_, error.localizedDescription);
    finish(TransportResult{std::move(error), {}, retryAfter});
  }

  // libcurl's timers of the last transfer (microseconds from its start),
  // placed on the steady clock.
  void readTiming() {
    if (!easy_) return;
    const auto at = [&](CURLINFO info) -> std::optional<std::chrono::steady_clock::time_point> {
      curl_off_t microseconds = 0;
      if (curl_easy_getinfo(easy_, info, &microseconds) != CURLE_OK || microseconds <= 0) return std::nullopt;
      return attemptStarted_ + std::chrono::microseconds(microseconds);
    };
    long connects = 0;
    curl_easy_getinfo(easy_, CURLINFO_NUM_CONNECTS, &connects);
    timing_.connectionReused = connects == 0;
    // A kept connection was ready when the transfer began.
    timing_.connected = timing_.connectionReused ? std::optional(attemptStarted_) : at(CURLINFO_CONNECT_TIME_T);
    timing_.tlsDone = timing_.connectionReused ? std::optional(attemptStarted_) : at(CURLINFO_APPCONNECT_TIME_T);
    timing_.firstByte = at(CURLINFO_STARTTRANSFER_TIME_T);
    timing_.done = at(CURLINFO_TOTAL_TIME_T);
    curl_off_t bytes = 0;
    curl_easy_getinfo(easy_, CURLINFO_SIZE_DOWNLOAD_T, &bytes);
    timing_.bytesReceived = static_cast<std::uint64_t>(std::max<curl_off_t>(0, bytes));
    long version = 0;
    curl_easy_getinfo(easy_, CURLINFO_HTTP_VERSION, &version);
    timing_.httpVersion = version == CURL_HTTP_VERSION_2_0 ? "2"
                          : version == CURL_HTTP_VERSION_1_1 ? "1.1"
                          : version == CURL_HTTP_VERSION_1_0 ? "1.0"
                                                             : "";
    if (!timing_.nameLookupDone) timing_.nameLookupDone = timing_.started;
  }

  void finish(TransportResult result) {
    result.timing = timing_;
    auto completion = std::move(completion_);
    completion_ = nullptr;
    if (completion) completion(std::move(result));
  }

  CurlMulti& multi_;
  std::weak_ptr<void> lifetime_;
  Endpoint endpoint_;
  std::string url_;
  std::size_t bodyLimit_;
  RequestTransport::Completion completion_;
  CURL* easy_;
  HttpsRequestTransport::Options options_;
  std::optional<std::string> trust_;
  std::unique_ptr<Resolver> resolver_;
  std::vector<std::string> candidates_;  // "host:port:address", one per address
  std::size_t candidate_ = 0;
  std::chrono::steady_clock::time_point attemptStarted_{};
  std::chrono::milliseconds silentTime_{};  // spent on addresses that never answered
  Slist resolveList_;
  Slist conditions_;
  std::shared_ptr<ResponseCache> cache_;  // set when the request revalidates
  std::string cacheKey_;
  Validators held_;
  Validators validators_;  // of the answer arriving
  Data body_;
  TransportTiming timing_;
  bool tooLarge_ = false;
  std::string unaskedCoding_;  // the header that ended the transfer, if one did
  std::chrono::milliseconds inactivityTimeout_{};
  std::chrono::steady_clock::time_point lastActivity_{};
  curl_off_t received_ = 0;
  curl_off_t sent_ = 0;
  bool inactive_ = false;
  char errorText_[CURL_ERROR_SIZE] = {};
};

}  // namespace

std::shared_ptr<TransportOperation> HttpsRequestTransport::start(const QELRequest& request, Completion completion) {
  auto& loop = RunLoop::current();
  // Failures found before any I/O are still reported from the loop, never
  // from within start(), and not at all once cancelled.
  auto failLater = [&](Error error) {
    auto operation = std::make_shared<FailedOperation>();
    loop.post([operation, completion = std::move(completion), error = std::move(error)]() mutable {
      if (!operation->isCancelled()) completion(TransportResult{std::move(error), {}});
    });
    return operation;
  };

  const auto resolved = options_.configuration ? nullptr : QELConfiguration::current();
  const QELConfiguration& configuration = options_.configuration ? *options_.configuration : *resolved;
  auto decision = policy_.resolve(request, configuration);
  if (!decision.endpoint) {
    QELLogging::log("Request not sent: %s", 2, kDomain, decision.refusal);
    const auto code = request.requestURL() && !request.requestURL()->empty() ? NetworkErrorCode::RefusedURL
                                                                             : NetworkErrorCode::InvalidURL;
    return failLater(networkError(code, decision.refusal));
  }

  std::optional<std::string> trust;
  if (std::string why; decision.endpoint->tls && !TlsContext::trustedPem(configuration, trust, &why)) {
    QELLogging::log("Request to %s not sent: %s", 2, kDomain, decision.endpoint->url(), why);
    return failLater(networkError(NetworkErrorCode::TlsSetup, why));
  }

  auto& multi = CurlMulti::of(loop.context());
  multi.setLimits({options_.maximumIdleTime, options_.maximumConnections});
  auto attempt = std::make_shared<CurlAttempt>(multi, std::move(*decision.endpoint), request.maximumResponseSize(),
                                               std::move(completion));
  // A picture whose answer is held is revalidated rather than fetched again.
  if (auto cache = ResponseCache::current(); cache && request.kind() == QELRequest::Kind::ImageDownload) {
    const std::string key = request.requestURL().value_or("");
    if (auto validators = cache->validatorsFor(key); validators && !validators->empty()) {
      attempt->revalidate(std::move(cache), key, std::move(*validators));
    }
  }
  std::string why;
  if (!attempt->start(loop.context(), options_, configuration, trust, &why)) {
    completion = attempt->takeCompletion();
    QELLogging::log("Request not sent: %s", 2, kDomain, why);
    return failLater(networkError(NetworkErrorCode::Io, why));
  }
  return attempt;
}

}  // namespace qel::core::net
