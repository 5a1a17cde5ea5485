#include "qel/core/net/ConnectionPool.h"

#include <algorithm>

namespace qel::core::net {

boost::asio::execution_context::id ConnectionPool::id;

ConnectionPool::ConnectionPool(boost::asio::execution_context& context)
    : boost::asio::execution_context::service(context) {}

ConnectionPool& ConnectionPool::of(boost::asio::io_context& ioContext) {
  return boost::asio::use_service<ConnectionPool>(ioContext);
}

std::unique_ptr<HttpConnection> ConnectionPool::checkOut(const Key& key,
                                                         std::chrono::steady_clock::duration maximumIdle) {
  const auto found = idle_.find(key);
  if (found == idle_.end()) return nullptr;
  auto& connections = found->second;
  const auto now = std::chrono::steady_clock::now();
  std::unique_ptr<HttpConnection> result;
  while (!connections.empty() && !result) {
    auto candidate = std::move(connections.back());
    connections.pop_back();
    if (now - candidate->idleSince <= maximumIdle) result = std::move(candidate);
  }
  // Anything left is older than what we took; drop what has expired.
  std::erase_if(connections, [&](const auto& c) { return now - c->idleSince > maximumIdle; });
  if (connections.empty()) idle_.erase(found);
  return result;
}

void ConnectionPool::checkIn(const Key& key, std::unique_ptr<HttpConnection> connection,
                             std::size_t maximumPerKey) {
  if (maximumPerKey == 0) return;
  connection->idleSince = std::chrono::steady_clock::now();
  connection->tcp().expires_never();
  auto& connections = idle_[key];
  connections.push_back(std::move(connection));
  if (connections.size() > maximumPerKey) connections.erase(connections.begin());
}

std::size_t ConnectionPool::idleCount() const {
  std::size_t count = 0;
  for (const auto& [key, connections] : idle_) count += connections.size();
  return count;
}

}  // namespace qel::core::net
