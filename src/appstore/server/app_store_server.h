// AppStoreServer: the App Store Server API over HTTP, answered from one store's ledger, for a
// developer's own server to call as it calls Apple's. One listening thread of its own; every
// request is checked against the in-app-purchase key before it reaches the store. Bound to
// loopback unless told otherwise. start() and the destructor from any one thread; url() from
// any thread.
#pragma once

#include <memory>
#include <string>

#include "appstore/local_store.h"
#include "appstore/server/in_app_purchase_key.h"

namespace appstore::server {

struct ServerOptions {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: a free port
  InAppPurchaseKey key;
  // The Transaction Manager page's controls answer from other machines too (the server bound to
  // an address other than loopback); otherwise they answer only on loopback.
  bool managerFromAnywhere = false;
};

class AppStoreServer {
 public:
  // Listening once this returns. Throws std::runtime_error when the address cannot be bound.
  static std::unique_ptr<AppStoreServer> start(std::shared_ptr<LocalStore> store, ServerOptions options);
  ~AppStoreServer();
  AppStoreServer(const AppStoreServer&) = delete;
  AppStoreServer& operator=(const AppStoreServer&) = delete;

  // "http://HOST:PORT", the base URL an App Store Server API client is given.
  std::string url() const;

  class Impl;

 private:
  explicit AppStoreServer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace appstore::server
