#pragma once

// The simulator inside the process that tests or measures a client: on a
// loopback port, with its throw-away CA written to a file the client can be
// told to trust. The library's tests and benchmarks run against it.
//
// Threading: without a context it runs on an io_context and a thread of its
// own, as the cabin server is another machine, and is touched only through
// call() and post(); given the caller's context, it runs there, call() and
// post() run at once, and the caller runs that context.
//
//   cabinsim::LocalServer cabin({.intervalSeconds = 3600});  // the test ticks
//   connect(cabin.host(), cabin.port(), cabin.caFile());
//   cabin.call([](cabinsim::Server& server) { server.tick(); });

#include <cabinsim/Server.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>

namespace cabinsim {

class LocalServer {
 public:
  // Starts serving before it returns; throws what Server::start() throws.
  explicit LocalServer(ServerOptions options, boost::asio::io_context* context = nullptr);
  // Destroys the server where it runs, then ends its thread.
  ~LocalServer();
  LocalServer(const LocalServer&) = delete;
  LocalServer& operator=(const LocalServer&) = delete;

  // Runs `f(server)` where the server runs, waits for it and returns its result.
  template <class F>
  auto call(F f) {
    if (!thread_.joinable()) return f(*server_);
    std::packaged_task<std::invoke_result_t<F, Server&>()> task([&] { return f(*server_); });
    auto result = task.get_future();
    boost::asio::post(context_, std::move(task));
    return result.get();
  }
  // Runs `f(server)` where the server runs, without waiting.
  void post(std::function<void(Server&)> f);

  // Renders and pushes the next update, and returns once it is sent.
  void tick() { call([](Server& server) { server.tick(); }); }
  // Stops serving, without waiting.
  void stop() { post([](Server& server) { server.stop(); }); }

  const std::string& host() const { return host_; }
  std::uint16_t port() const { return port_; }
  const std::string& caFile() const { return caFile_; }
  // Only where the server runs.
  Server& server() { return *server_; }

 private:
  std::unique_ptr<boost::asio::io_context> ownContext_;
  boost::asio::io_context& context_;
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
  std::unique_ptr<Server> server_;
  std::string host_;
  std::uint16_t port_ = 0;
  std::filesystem::path directory_;
  std::string caFile_;
  std::thread thread_;
};

}  // namespace cabinsim
