// A developer's endpoint for App Store Server Notifications, on loopback, for tests: it keeps
// the decoded payload of every POST it is sent and answers with the status it is told, or
// holds the request without answering. Any thread.
#pragma once

#include <httplib.h>

#include <boost/json/parse.hpp>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/base64.h"

namespace testsupport {

class NotificationReceiver {
 public:
  // Listens on `port` of 127.0.0.1 (0: a free one).
  explicit NotificationReceiver(int port = 0) {
    server_.Post("/notifications", [this](const httplib::Request& request, httplib::Response& response) {
      std::unique_lock lock(mutex_);
      received_.push_back(payloadOf(request.body));
      arrived_.notify_all();
      if (hold_) {
        // Long enough for any sender to give up waiting; released when the receiver stops.
        arrived_.wait_for(lock, std::chrono::seconds(10), [&] { return stopping_; });
      }
      response.status = status_;
    });
    // A connection kept open waits this long when the receiver stops.
    server_.set_keep_alive_timeout(1);
    port_ = port == 0 ? server_.bind_to_any_port("127.0.0.1")
                      : (server_.bind_to_port("127.0.0.1", port) ? port : -1);
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~NotificationReceiver() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    arrived_.notify_all();
    server_.stop();
    thread_.join();
  }

  bool listening() const { return port_ > 0; }
  int port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/notifications"; }

  void answerWith(int status) {
    std::lock_guard lock(mutex_);
    status_ = status;
    hold_ = false;
  }
  void holdWithoutAnswer() {
    std::lock_guard lock(mutex_);
    hold_ = true;
  }

  // The payloads received, once there are at least `count` (within five seconds).
  std::vector<boost::json::object> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, std::chrono::seconds(5), [&] { return received_.size() >= count; });
    return received_;
  }

  // The decoded payload of a notification's {"signedPayload": JWS}.
  static boost::json::object payloadOf(const std::string& body) {
    try {
      const auto jws = std::string(boost::json::parse(body).at("signedPayload").as_string());
      const auto first = jws.find('.'), second = jws.find('.', first + 1);
      const auto decoded = platform::base64URLDecode(jws.substr(first + 1, second - first - 1));
      return boost::json::parse(decoded.value_or("{}")).as_object();
    } catch (const std::exception&) {
      return {{"unreadable", body}};
    }
  }

 private:
  httplib::Server server_;
  int port_ = -1;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<boost::json::object> received_;
  int status_ = 200;
  bool hold_ = false;
  bool stopping_ = false;
};

}  // namespace testsupport
