#include "appstore/server/manager_routes.h"

#include <chrono>
#include <string>

#include <httplib.h>

#include <boost/json/serialize.hpp>

#include "appstore/server/manager_api.h"
#include "appstore/server/manager_page.h"

namespace appstore::server {
namespace {

// An event stream says something at least this often, so that a page notices a server that
// went away and a proxy keeps the connection.
constexpr auto kKeepAlive = std::chrono::seconds(15);

void write(httplib::Response& response, const ApiAnswer& answer) {
  response.status = answer.status;
  response.set_header("Cache-Control", "no-store");
  if (!answer.body.empty()) response.set_content(answer.body, "application/json");
}

}  // namespace

bool isManagerPath(std::string_view path) { return path == "/" || path.rfind("/manager/", 0) == 0; }

bool isLoopback(std::string_view host) {
  return host == "localhost" || host == "::1" || host == "[::1]" || host.rfind("127.", 0) == 0;
}

ManagerRoutes::ManagerRoutes(httplib::Server& http, std::shared_ptr<LocalStore> store, bool reachable)
    : store_(std::move(store)) {
  listener_ = store_->addChangeListener([this] {
    {
      std::lock_guard lock(mutex_);
      ++changes_;
    }
    changed_.notify_all();
  });
  http.Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_header("Cache-Control", "no-store");
    response.set_content(managerPage(), "text/html; charset=utf-8");
  });
  if (!reachable) {
    const auto refuse = [](const httplib::Request&, httplib::Response& response) {
      write(response, {403, boost::json::serialize(boost::json::object{
                                {"error", "the store's controls answer only on loopback; start the "
                                          "server with the flag that lets the page be reached "
                                          "from elsewhere"}})});
    };
    http.Get("/manager/.*", refuse);
    http.Post("/manager/.*", refuse);
    return;
  }
  http.Get("/manager/state", [this](const httplib::Request&, httplib::Response& response) {
    write(response, managerState(*store_));
  });
  http.Post("/manager/control", [this](const httplib::Request& request, httplib::Response& response) {
    write(response, managerControl(*store_, request.body));
  });
  http.Get("/manager/events", [this](const httplib::Request&, httplib::Response& response) {
    response.set_header("Cache-Control", "no-store");
    std::uint64_t seen = 0;
    {
      std::lock_guard lock(mutex_);
      seen = changes_;
    }
    response.set_chunked_content_provider(
        "text/event-stream", [this, seen](std::size_t, httplib::DataSink& sink) mutable {
          std::unique_lock lock(mutex_);
          changed_.wait_for(lock, kKeepAlive, [&] { return stopping_ || changes_ != seen; });
          if (stopping_) {
            sink.done();
            return false;
          }
          std::string event = ": still here\n\n";
          if (changes_ != seen) {
            seen = changes_;
            event = "event: changed\ndata: " + std::to_string(seen) + "\n\n";
          }
          lock.unlock();
          return sink.write(event.data(), event.size());
        });
  });
}

void ManagerRoutes::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
}

ManagerRoutes::~ManagerRoutes() {
  stop();
  store_->removeChangeListener(listener_);
}

}  // namespace appstore::server
