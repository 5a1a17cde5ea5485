#pragma once

#include <boost/url/url.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace qel {

// Composes a URL from its parts, escaping each part as RFC 3986 requires,
// like the platform's URL components. Parts never set are left out.
//
//   qel::URLComponents c;
//   c.setScheme("https"); c.setHost("cabin.local"); c.setPath("/a b");
//   c.string();  // "https://cabin.local/a%20b"
class URLComponents {
 public:
  void setScheme(std::string_view scheme);
  // An empty optional leaves the URL without a host ("https:/path"... as the
  // platform composes it: scheme, "://" only when there is a host).
  void setHost(const std::optional<std::string>& host);
  void setPort(std::optional<std::uint16_t> port);
  void setPath(std::string_view path);

  std::string string() const;
  const boost::urls::url& url() const { return url_; }

 private:
  boost::urls::url url_;
  std::string encodedPath_;  // the path as given, escaped
};

// Decodes every %XX escape; empty when an escape is malformed or the result
// is not valid UTF-8.
std::optional<std::string> removingPercentEncoding(std::string_view text);

}  // namespace qel
