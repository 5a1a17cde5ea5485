#pragma once

// The cabin server simulator as the tests of the whole library use it: on a
// loopback port, its throw-away CA written to a file, and the core kit's
// configuration that reaches it and trusts that CA.
//
// Threading: with `ownThread` it runs on an io_context and a thread of its
// own, as the cabin server is another machine, and is touched only through
// call(); otherwise it runs on the creating thread's run loop and call() runs
// at once.
//
//   qel::testing::Simulator simulator;  // no periodic updates: the test ticks
//   qel::core::QELConfiguration::set(simulator.configuration());
//   simulator.call([](cabinsim::Server& server) { server.tick(); });

#include <cabinsim/Server.h>

#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace qel::testing {

class Simulator {
 public:
  // Options without periodic updates.
  static cabinsim::ServerOptions ticked(cabinsim::ServerOptions options = {}) {
    options.intervalSeconds = 3600;
    return options;
  }

  // Runs `f(server)` where the server lives and returns its result.
  template <class F>
  auto call(F f) {
    if (!context_) return f(*server_);
    std::packaged_task<std::invoke_result_t<F, cabinsim::Server&>()> task([&] { return f(*server_); });
    auto result = task.get_future();
    boost::asio::post(*context_, std::move(task));
    return result.get();
  }

  explicit Simulator(cabinsim::ServerOptions options = ticked(), bool ownThread = true)
      : context_(ownThread ? std::make_unique<boost::asio::io_context>() : nullptr),
        server_(std::make_unique<cabinsim::Server>(context_ ? *context_ : RunLoop::current().context(), options)) {
    configuration_.host = options.host;
    configuration_.port = server_->start();
    std::filesystem::create_directories(directory_);
    configuration_.caFile = (directory_ / "ca.pem").string();
    std::ofstream(*configuration_.caFile) << server_->trustAnchorPem();
    if (context_) {
      guard_.emplace(context_->get_executor());
      thread_ = std::thread([this] { context_->run(); });
    }
  }
  ~Simulator() {
    call([this](cabinsim::Server&) { server_.reset(); });
    if (context_) {
      guard_.reset();
      thread_.join();
    }
    std::filesystem::remove_all(directory_);
  }
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  void tick() {
    call([](cabinsim::Server& server) { server.tick(); });
  }
  // Stops serving, without waiting for the simulator's thread.
  void stop() {
    if (!context_) return server_->stop();
    boost::asio::post(*context_, [this] { server_->stop(); });
  }
  bool eventChannelUp() {
    return call([](cabinsim::Server& server) { return server.eventClientCount() == 1; });
  }

  // Only on the thread it runs on.
  cabinsim::Server& server() { return *server_; }
  core::QELConfiguration& configuration() { return configuration_; }
  const std::string& caFile() const { return *configuration_.caFile; }

 private:
  inline static std::atomic<int> instances_{0};
  std::filesystem::path directory_ = std::filesystem::temp_directory_path() /
                                     ("qelmaps-sim-" + std::to_string(::getpid()) + "-" + std::to_string(instances_++));
  std::unique_ptr<boost::asio::io_context> context_;
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> guard_;
  std::unique_ptr<cabinsim::Server> server_;
  core::QELConfiguration configuration_;
  std::thread thread_;
};

}  // namespace qel::testing
