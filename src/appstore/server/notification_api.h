// The App Store Server API's notification endpoints as functions of the store: request a test
// notification and read its status, and the notification history with its filters and
// pagination. No HTTP here; any thread.
#pragma once

#include <string>

#include "appstore/local_store.h"
#include "appstore/server/server_api.h"

namespace appstore::server {

// POST /inApps/v1/notifications/test: {"testNotificationToken": ...}.
ApiAnswer requestTestNotification(LocalStore& store);

// GET /inApps/v1/notifications/test/{testNotificationToken}: {signedPayload, sendAttempts}.
ApiAnswer testNotificationStatus(LocalStore& store, const std::string& token);

// POST /inApps/v1/notifications/history[?paginationToken=...] with a NotificationHistoryRequest
// body: 20 notifications a page, oldest first, each with its send attempts.
ApiAnswer notificationHistory(LocalStore& store, const std::string& body,
                              const std::string& paginationToken);

}  // namespace appstore::server
