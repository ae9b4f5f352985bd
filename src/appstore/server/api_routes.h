// The App Store Server API's routing: which endpoint a request's method and path name, and
// Apple's answer for a path it does not serve or a method the path does not take. Plain data
// in and out, no HTTP library: app_store_server.cpp hands every request that passed the bearer
// check to answerRequest and writes back what it returns. Any thread (the store serialises its
// own state).
#pragma once

#include <string>

#include "appstore/local_store.h"
#include "appstore/server/server_api.h"

namespace appstore::server {

struct ApiRequest {
  std::string method;  // "GET", "POST", "PUT", ... as sent; HEAD is answered as GET
  // Percent-decoded once, as the HTTP server hands it over, without the query. Ids are taken
  // from it as they stand: nothing is decoded a second time.
  std::string path;
  QueryParameters query;
  std::string body;
};

// The endpoint's answer; 404 with no body for a path no endpoint has; 405 with no body and
// `allow` naming the methods for a path that exists under other methods only.
ApiAnswer answerRequest(LocalStore& store, const ApiRequest& request);

}  // namespace appstore::server
