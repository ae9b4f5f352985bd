#include "appstore/server/app_store_server.h"

#include <chrono>
#include <regex>
#include <stdexcept>
#include <thread>

#include <httplib.h>

#include <boost/json/serialize.hpp>

#include "appstore/server/bearer_token.h"
#include "appstore/server/manager_routes.h"
#include "appstore/server/notification_api.h"
#include "appstore/server/server_api.h"

namespace appstore::server {

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
    http_.Get(R"(/inApps/v1/transactions/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                writeAnswer(response, transactionInfo(*store_, request.matches[1].str()));
              });
    http_.Get(R"(/inApps/v1/subscriptions/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                std::vector<std::string> statuses;
                const auto [first, last] = request.params.equal_range("status");
                for (auto it = first; it != last; ++it) statuses.push_back(it->second);
                writeAnswer(response, allSubscriptionStatuses(*store_, request.matches[1].str(), statuses));
              });
    http_.Post("/inApps/v1/notifications/test",
               [this](const httplib::Request&, httplib::Response& response) {
                 writeAnswer(response, requestTestNotification(*store_));
               });
    http_.Get(R"(/inApps/v1/notifications/test/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                writeAnswer(response, testNotificationStatus(*store_, request.matches[1].str()));
              });
    http_.Post("/inApps/v1/notifications/history",
               [this](const httplib::Request& request, httplib::Response& response) {
                 writeAnswer(response, notificationHistory(*store_, request.body,
                                                           request.get_param_value("paginationToken")));
               });
    http_.Post(R"(/inApps/v1/transactions/([^/]+)/finish)",
               [this](const httplib::Request& request, httplib::Response& response) {
                 writeAnswer(response, finishTransaction(*store_, request.matches[1].str()));
               });
    http_.Get(R"(/inApps/v1/transactions/appTransactions/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                writeAnswer(response, appTransactionInfo(*store_, request.matches[1].str()));
              });
    http_.Put(R"(/inApps/v1/transactions/([^/]+)/appAccountToken)",
              [this](const httplib::Request& request, httplib::Response& response) {
                writeAnswer(response, setAppAccountToken(*store_, request.matches[1].str(), request.body));
              });
    http_.Get(R"(/inApps/(v1|v2)/history/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                const auto version = request.matches[1].str() == "v1" ? HistoryVersion::v1 : HistoryVersion::v2;
                writeAnswer(response, transactionHistory(*store_, version, request.matches[2].str(),
                                                         request.params));
              });
    http_.Put(R"(/inApps/(v1|v2)/transactions/consumption/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                const auto version =
                    request.matches[1].str() == "v1" ? ConsumptionVersion::v1 : ConsumptionVersion::v2;
                writeAnswer(response, sendConsumptionInformation(*store_, version, request.matches[2].str(),
                                                                 request.body));
              });
    http_.Put(R"(/inApps/v1/subscriptions/extend/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                writeAnswer(response, extendRenewalDate(*store_, request.matches[1].str(), request.body));
              });
    http_.Post(R"(/inApps/v1/subscriptions/extend/mass)",
               [this](const httplib::Request& request, httplib::Response& response) {
                 writeAnswer(response, extendRenewalDatesForAllSubscribers(*store_, request.body));
               });
    http_.Get(R"(/inApps/v1/subscriptions/extend/mass/([^/]+)/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                writeAnswer(response, massExtensionStatus(*store_, request.matches[1].str(),
                                                          request.matches[2].str()));
              });
    http_.Get(R"(/inApps/v2/refund/lookup/([^/]+))",
              [this](const httplib::Request& request, httplib::Response& response) {
                writeAnswer(response, refundHistory(*store_, request.matches[1].str(), request.params));
              });
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
