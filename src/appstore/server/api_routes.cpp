#include "appstore/server/api_routes.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <vector>

#include "appstore/server/api_support.h"
#include "appstore/server/notification_api.h"

namespace appstore::server {
namespace {

// The path's variable parts, in the order they appear.
using PathIds = std::vector<std::string>;
using Endpoint = ApiAnswer (*)(LocalStore&, const PathIds&, const ApiRequest&);

struct Route {
  std::string_view method;
  // Segments between slashes; "*" stands for any one non-empty segment, an id.
  std::string_view pattern;
  Endpoint endpoint;
};

// The first value of a query parameter, "" when absent: a repeated one is not refused.
std::string firstValue(const QueryParameters& query, const std::string& key) {
  const auto found = query.equal_range(key);
  return found.first == found.second ? std::string() : found.first->second;
}

// Where two patterns could both match a path (PUT .../transactions/consumption/appAccountToken),
// the one listed first answers.
constexpr std::array kRoutes{
    Route{"GET", "/inApps/v1/transactions/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest&) {
            return transactionInfo(store, ids[0]);
          }},
    Route{"GET", "/inApps/v1/subscriptions/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest& request) {
            return allSubscriptionStatuses(store, ids[0], allValues(request.query, "status"));
          }},
    Route{"POST", "/inApps/v1/notifications/test",
          [](LocalStore& store, const PathIds&, const ApiRequest&) {
            return requestTestNotification(store);
          }},
    Route{"GET", "/inApps/v1/notifications/test/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest&) {
            return testNotificationStatus(store, ids[0]);
          }},
    Route{"POST", "/inApps/v1/notifications/history",
          [](LocalStore& store, const PathIds&, const ApiRequest& request) {
            return notificationHistory(store, request.body,
                                       firstValue(request.query, "paginationToken"));
          }},
    Route{"POST", "/inApps/v1/transactions/*/finish",
          [](LocalStore& store, const PathIds& ids, const ApiRequest&) {
            return finishTransaction(store, ids[0]);
          }},
    Route{"GET", "/inApps/v1/transactions/appTransactions/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest&) {
            return appTransactionInfo(store, ids[0]);
          }},
    Route{"PUT", "/inApps/v1/transactions/*/appAccountToken",
          [](LocalStore& store, const PathIds& ids, const ApiRequest& request) {
            return setAppAccountToken(store, ids[0], request.body);
          }},
    Route{"GET", "/inApps/v1/history/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest& request) {
            return transactionHistory(store, HistoryVersion::v1, ids[0], request.query);
          }},
    Route{"GET", "/inApps/v2/history/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest& request) {
            return transactionHistory(store, HistoryVersion::v2, ids[0], request.query);
          }},
    Route{"PUT", "/inApps/v1/transactions/consumption/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest& request) {
            return sendConsumptionInformation(store, ConsumptionVersion::v1, ids[0], request.body);
          }},
    Route{"PUT", "/inApps/v2/transactions/consumption/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest& request) {
            return sendConsumptionInformation(store, ConsumptionVersion::v2, ids[0], request.body);
          }},
    Route{"PUT", "/inApps/v1/subscriptions/extend/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest& request) {
            return extendRenewalDate(store, ids[0], request.body);
          }},
    Route{"POST", "/inApps/v1/subscriptions/extend/mass",
          [](LocalStore& store, const PathIds&, const ApiRequest& request) {
            return extendRenewalDatesForAllSubscribers(store, request.body);
          }},
    Route{"GET", "/inApps/v1/subscriptions/extend/mass/*/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest&) {
            return massExtensionStatus(store, ids[0], ids[1]);
          }},
    Route{"GET", "/inApps/v1/lookup/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest&) {
            return lookUpOrderID(store, ids[0]);
          }},
    Route{"GET", "/inApps/v2/refund/lookup/*",
          [](LocalStore& store, const PathIds& ids, const ApiRequest& request) {
            return refundHistory(store, ids[0], request.query);
          }},
};

// The ids `path` gives `pattern`, or nothing when it does not fit. Letter case counts, and
// every slash separates: an empty segment or a trailing slash fits no pattern.
std::optional<PathIds> match(std::string_view pattern, std::string_view path) {
  PathIds ids;
  while (!pattern.empty()) {
    if (path.empty() || path.front() != '/') return std::nullopt;
    pattern.remove_prefix(1);
    path.remove_prefix(1);
    const auto expected = pattern.substr(0, pattern.find('/'));
    const auto segment = path.substr(0, path.find('/'));
    if (expected == "*") {
      if (segment.empty()) return std::nullopt;
      ids.emplace_back(segment);
    } else if (segment != expected) {
      return std::nullopt;
    }
    pattern.remove_prefix(expected.size());
    path.remove_prefix(segment.size());
  }
  if (!path.empty()) return std::nullopt;
  return ids;
}

}  // namespace

ApiAnswer answerRequest(LocalStore& store, const ApiRequest& request) {
  // A HEAD is a GET whose body the HTTP server leaves out. Both sides are views: a std::string
  // on either side would make the view point into a temporary.
  const std::string_view method =
      request.method == "HEAD" ? std::string_view("GET") : std::string_view(request.method);
  std::vector<std::string_view> taken;  // the methods of the routes the path fits
  for (const auto& route : kRoutes) {
    auto ids = match(route.pattern, request.path);
    if (!ids) continue;
    if (route.method == method) return route.endpoint(store, *ids, request);
    taken.push_back(route.method);
  }
  if (taken.empty()) return ApiAnswer{404, ""};
  std::string allow;
  for (const std::string_view name : {"GET", "POST", "PUT"}) {
    if (std::find(taken.begin(), taken.end(), name) == taken.end()) continue;
    if (!allow.empty()) allow += ", ";
    allow += name;
    if (name == "GET") allow += ", HEAD";
  }
  return ApiAnswer{405, "", allow};
}

}  // namespace appstore::server
