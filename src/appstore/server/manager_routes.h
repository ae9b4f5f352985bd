// The Transaction Manager's routes on the App Store server's HTTP server: the page at "/", and
// under /manager/ its state, its controls and the server-sent events that follow the ledger.
// They need no bearer token; they answer only when the server is bound to loopback or was
// told the page may be reached from elsewhere. Made and destroyed with the server, on its
// owner's thread; the handlers run on the server's threads.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

#include "appstore/local_store.h"

namespace httplib {
class Server;
}

namespace appstore::server {

// Whether a request path is the page's rather than the App Store Server API's.
bool isManagerPath(std::string_view path);
// Whether a host name or address the server binds to is the loopback interface.
bool isLoopback(std::string_view host);

class ManagerRoutes {
 public:
  // Adds the routes to `http`; `reachable` says whether the page's endpoints may answer.
  ManagerRoutes(httplib::Server& http, std::shared_ptr<LocalStore> store, bool reachable);
  // Ends every event stream (the server waits for them as it stops).
  void stop();
  ~ManagerRoutes();

 private:
  std::shared_ptr<LocalStore> store_;
  std::uint64_t listener_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t changes_ = 0;  // guarded by mutex_
  bool stopping_ = false;      // guarded by mutex_
};

}  // namespace appstore::server
