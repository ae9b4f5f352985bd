// The Transaction Manager page's own endpoints (not the App Store Server API): a snapshot of
// the store as the page shows it, and the store's controls by name. No HTTP here; any thread.
#pragma once

#include <string>

#include "appstore/local_store.h"
#include "appstore/server/server_api.h"

namespace appstore::server {

// GET /manager/state: {store, products, transactions, subscriptions, notifications}, with the
// signed forms as the store hands them out (the page decodes their payloads to show them).
ApiAnswer managerState(LocalStore& store);

// POST /manager/control with {"control": NAME, ...arguments}: the control's result as
// {"ok": true, ...}, or 400 {"error": MESSAGE} in words for the page to show beside it.
ApiAnswer managerControl(LocalStore& store, const std::string& body);

}  // namespace appstore::server
