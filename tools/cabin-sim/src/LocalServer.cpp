#include "cabinsim/LocalServer.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace cabinsim {

namespace {

// A folder of its own, so that servers of several processes and tests never
// share a CA file.
std::filesystem::path makeDirectory() {
  std::string path = (std::filesystem::temp_directory_path() / "cabin-sim-XXXXXX").string();
  if (!::mkdtemp(path.data())) throw std::system_error(errno, std::generic_category(), "mkdtemp");
  return path;
}

}  // namespace

LocalServer::LocalServer(ServerOptions options, boost::asio::io_context* context)
    : ownContext_(context ? nullptr : std::make_unique<boost::asio::io_context>()),
      context_(context ? *context : *ownContext_),
      host_(options.host),
      directory_(makeDirectory()) {
  try {
    server_ = std::make_unique<Server>(context_, std::move(options));
    port_ = server_->start();
    caFile_ = (directory_ / "ca.pem").string();
    std::ofstream(caFile_) << server_->trustAnchorPem();
  } catch (...) {
    server_.reset();
    std::filesystem::remove_all(directory_);
    throw;
  }
  if (ownContext_) {
    work_.emplace(context_.get_executor());
    thread_ = std::thread([this] { context_.run(); });
  }
}

LocalServer::~LocalServer() {
  call([this](Server&) { server_.reset(); });
  if (thread_.joinable()) {
    work_.reset();
    thread_.join();
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void LocalServer::post(std::function<void(Server&)> f) {
  if (!thread_.joinable()) return f(*server_);
  boost::asio::post(context_, [this, f = std::move(f)] { f(*server_); });
}

}  // namespace cabinsim
