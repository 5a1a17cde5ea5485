#include "qel/URL.h"

#include <boost/url/encode.hpp>
#include <boost/url/ipv6_address.hpp>
#include <boost/url/rfc/pchars.hpp>

#include <cstdint>
#include <stdexcept>

namespace qel {

void URLComponents::setScheme(std::string_view scheme) {
  if (scheme.empty()) {
    url_.remove_scheme();
    return;
  }
  try {
    url_.set_scheme(scheme);
  } catch (const std::exception&) {
    // Not a valid scheme: the URL keeps the one it had.
  }
}

void URLComponents::setHost(const std::optional<std::string>& host) {
  if (host) {
    // A bare IPv6 literal ("::1") is an address, not a name to escape: it is
    // composed in brackets, as a bracketed one already is.
    if (const auto ipv6 = boost::urls::parse_ipv6_address(*host)) {
      url_.set_host_ipv6(*ipv6);
    } else {
      url_.set_host(*host);
    }
  } else if (url_.has_port()) {
    url_.set_encoded_host("");
  } else {
    url_.remove_authority();
  }
}

void URLComponents::setPort(std::optional<std::uint16_t> port) {
  if (port) {
    url_.set_port_number(*port);
  } else {
    url_.remove_port();
  }
}

void URLComponents::setPath(std::string_view path) {
  url_.set_path(path);
  encodedPath_ = boost::urls::encode(path, boost::urls::pchars + '/');
}

std::string URLComponents::string() const {
  // Boost.URL puts "/." before a path that could read as an authority ("//x",
  // and also "/" and "/./x"). Behind a host nothing is ambiguous, and the
  // path must reach the server as it was given, doubled slashes included.
  if (!url_.has_authority()) return std::string(url_.buffer());
  const auto buffer = url_.buffer();
  const auto pathAt = static_cast<std::size_t>(url_.encoded_path().data() - buffer.data());
  return std::string(buffer.substr(0, pathAt)) + encodedPath_;
}

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int length = 0;
    std::uint32_t codePoint = 0;
    std::uint32_t minimum = 0;
    if ((c & 0xE0) == 0xC0) {
      length = 2, codePoint = c & 0x1F, minimum = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3, codePoint = c & 0x0F, minimum = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4, codePoint = c & 0x07, minimum = 0x10000;
    } else {
      return false;
    }
    if (end - p < length) return false;
    for (int i = 1; i < length; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (p[i] & 0x3F);
    }
    if (codePoint < minimum || codePoint > 0x10FFFF) return false;
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return false;
    p += length;
  }
  return true;
}

}  // namespace

std::optional<std::string> removingPercentEncoding(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded.push_back(text[i]);
      continue;
    }
    if (text.size() - i < 3) return std::nullopt;
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    decoded.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  if (!isValidUTF8(decoded)) return std::nullopt;
  return decoded;
}

}  // namespace qel
