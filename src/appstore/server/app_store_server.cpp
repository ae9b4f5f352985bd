#include "appstore/server/app_store_server.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include <httplib.h>

#include "appstore/server/api_routes.h"
#include "appstore/server/bearer_token.h"
#include "appstore/server/manager_routes.h"

namespace appstore::server {

// httplib matches this against the percent-decoded path without its query.
constexpr const char* kAnyPath = ".*";

class AppStoreServer::Impl {
 public:
  Impl(std::shared_ptr<LocalStore> store, ServerOptions options)
      : store_(std::move(store)), options_(std::move(options)) {
    // Answers are small and go out whole: no waiting to coalesce them.
    http_.set_tcp_nodelay(true);
    // Nothing reaches an endpoint without a token signed with the developer's key.
    http_.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
      // The Transaction Manager page is not the API: no token (see ManagerRoutes).
      if (isManagerPath(request.path)) return httplib::Server::HandlerResponse::Unhandled;
      const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
      switch (checkBearerToken(request.get_header_value("Authorization"), options_.key,
                               store_->bundleID(), now)) {
        case TokenCheck::accepted:
          return httplib::Server::HandlerResponse::Unhandled;
        case TokenCheck::unauthorized:
          response.status = 401;
          response.set_content("Unauthenticated\n", "text/plain");
          return httplib::Server::HandlerResponse::Handled;
        case TokenCheck::unknownApp:
          writeAnswer(response, ApiAnswer::error(ApiError::appNotFound));
          return httplib::Server::HandlerResponse::Handled;
      }
      return httplib::Server::HandlerResponse::Unhandled;
    });
    // The endpoints route themselves (api_routes.cpp): every method httplib hands to a
    // handler goes to the same one, so that a known path asked with another method is told so.
    const auto answer = [this](const httplib::Request& request, httplib::Response& response) {
      writeAnswer(response, answerRequest(*store_, {request.method, request.path, request.params,
                                                    request.body}));
    };
    http_.Get(kAnyPath, answer);
    http_.Post(kAnyPath, answer);
    http_.Put(kAnyPath, answer);
    http_.Patch(kAnyPath, answer);
    http_.Delete(kAnyPath, answer);
    http_.Options(kAnyPath, answer);
  }

  void listen() {
    port_ = options_.port == 0 ? http_.bind_to_any_port(options_.host)
                               : (http_.bind_to_port(options_.host, options_.port) ? options_.port : -1);
    if (port_ <= 0) {
      throw std::runtime_error("cannot listen on " + options_.host + ":" + std::to_string(options_.port));
    }
    thread_ = std::thread([this] { http_.listen_after_bind(); });
  }

  ~Impl() {
    manager_.stop();
    http_.stop();
    if (thread_.joinable()) thread_.join();
  }

  std::string url() const {
    const bool ipv6 = options_.host.find(':') != std::string::npos;
    return "http://" + (ipv6 ? "[" + options_.host + "]" : options_.host) + ":" + std::to_string(port_);
  }

 private:
  static void writeAnswer(httplib::Response& response, const ApiAnswer& answer) {
    response.status = answer.status;
    if (!answer.allow.empty()) response.set_header("Allow", answer.allow);
    if (!answer.body.empty()) response.set_content(answer.body, "application/json");
  }

  std::shared_ptr<LocalStore> store_;
  ServerOptions options_;
  httplib::Server http_;
  ManagerRoutes manager_{http_, store_, isLoopback(options_.host) || options_.managerFromAnywhere};
  int port_ = -1;
  std::thread thread_;
};

std::unique_ptr<AppStoreServer> AppStoreServer::start(std::shared_ptr<LocalStore> store,
                                                      ServerOptions options) {
  auto impl = std::make_unique<Impl>(store, std::move(options));
  impl->listen();
  store->setServerURL(impl->url());
  return std::unique_ptr<AppStoreServer>(new AppStoreServer(std::move(impl)));
}

AppStoreServer::AppStoreServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
AppStoreServer::~AppStoreServer() = default;
std::string AppStoreServer::url() const { return impl_->url(); }

}  // namespace appstore::server
