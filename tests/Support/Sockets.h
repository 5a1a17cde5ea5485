#pragma once

// Loopback ports for tests of what a client sees when the server is not
// there.
//
//   configuration.port = qel::testing::closedPort();  // refused at once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace qel::testing {

// A loopback port where nothing listens: bound, then let go.
inline std::uint16_t closedPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

}  // namespace qel::testing
