#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel {

// Raw bytes, as a response body or a downloaded image arrives.
using Data = std::vector<std::uint8_t>;

// An error as the platform reports one: a domain, a code and a text for people.
struct Error {
  std::string domain;
  int code = 0;
  std::string localizedDescription;
};

}  // namespace qel
