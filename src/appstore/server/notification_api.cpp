#include "appstore/server/notification_api.h"

#include "appstore/server/api_support.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>
#include <set>

#include <boost/json/serialize.hpp>

namespace appstore::server {
namespace json = boost::json;
namespace {

constexpr std::size_t kPageSize = 20;

// Each notification type with the subtypes it comes with ("" for none).
const std::map<std::string, std::set<std::string>, std::less<>>& notificationTypes() {
  static const auto* types = new std::map<std::string, std::set<std::string>, std::less<>>{
      {"SUBSCRIBED", {"INITIAL_BUY", "RESUBSCRIBE"}},
      {"DID_RENEW", {"", "BILLING_RECOVERY"}},
      {"DID_FAIL_TO_RENEW", {"", "GRACE_PERIOD"}},
      {"GRACE_PERIOD_EXPIRED", {""}},
      {"EXPIRED", {"", "VOLUNTARY", "BILLING_RETRY", "PRICE_INCREASE", "PRODUCT_NOT_FOR_SALE"}},
      {"DID_CHANGE_RENEWAL_PREF", {"", "UPGRADE", "DOWNGRADE"}},
      {"DID_CHANGE_RENEWAL_STATUS", {"AUTO_RENEW_ENABLED", "AUTO_RENEW_DISABLED"}},
      {"OFFER_REDEEMED", {"", "UPGRADE", "DOWNGRADE"}},
      {"PRICE_INCREASE", {"PENDING", "ACCEPTED"}},
      {"REFUND", {""}},
      {"REFUND_DECLINED", {""}},
      {"REFUND_REVERSED", {""}},
      {"CONSUMPTION_REQUEST", {""}},
      {"REVOKE", {""}},
      {"RENEWAL_EXTENDED", {""}},
      {"RENEWAL_EXTENSION", {"SUMMARY", "FAILURE"}},
      {"ONE_TIME_CHARGE", {""}},
      {"TEST", {""}},
      {"EXTERNAL_PURCHASE_TOKEN", {"UNREPORTED", "CREATED", "ACTIVE_TOKEN_REMINDER"}},
      {"RESCIND_CONSENT", {""}},
      {"METADATA_UPDATE", {""}},
      {"MIGRATION", {""}},
      {"PRICE_CHANGE", {""}},
  };
  return *types;
}

json::array sendAttempts(const LedgerNotification& notification) {
  json::array attempts;
  for (const auto& attempt : notification.attempts) {
    attempts.push_back({{"attemptDate", platform::millisecondsSince1970(attempt.date)},
                        {"sendAttemptResult", attempt.result}});
  }
  return attempts;
}

// A date in a request body: milliseconds since 1970 within the years the store keeps.
std::optional<platform::Date> dateIn(const json::object& body, const char* key) {
  const auto value = integerMember(body, key);
  if (!value || *value < 0 || *value > 253402300799999) return std::nullopt;
  return platform::dateFromMillisecondsSince1970(*value);
}

// The pagination token names where the next page starts and the filters it belongs to: a
// token given with another body is refused.
std::uint64_t filterHash(const std::string& text) {
  std::uint64_t hash = 1469598103934665603ULL;
  for (const unsigned char c : text) hash = (hash ^ c) * 1099511628211ULL;
  return hash;
}

std::string paginationToken(std::uint64_t sequence, std::uint64_t filters) {
  char text[40];
  std::snprintf(text, sizeof text, "%016llx-%016llx", static_cast<unsigned long long>(sequence),
                static_cast<unsigned long long>(filters));
  return text;
}

std::optional<std::uint64_t> pageStart(const std::string& token, std::uint64_t filters) {
  if (token.size() != 33 || token[16] != '-') return std::nullopt;
  std::uint64_t sequence = 0, hash = 0;
  const auto parse = [](const char* first, const char* last, std::uint64_t& out) {
    const auto [end, ec] = std::from_chars(first, last, out, 16);
    return ec == std::errc() && end == last;
  };
  if (!parse(token.data(), token.data() + 16, sequence) ||
      !parse(token.data() + 17, token.data() + 33, hash) || hash != filters) {
    return std::nullopt;
  }
  return sequence;
}

}  // namespace

ApiAnswer requestTestNotification(LocalStore& store) {
  return guarded([&] {
    const auto token = store.requestTestNotification();
    if (!token) return ApiAnswer::error(ApiError::serverNotificationURLNotFound);
    return ApiAnswer{200, json::serialize(json::object{{"testNotificationToken", *token}})};
  });
}

ApiAnswer testNotificationStatus(LocalStore& store, const std::string& token) {
  return guarded([&] {
    if (!platform::UUID::fromString(token)) {
      return ApiAnswer::error(ApiError::invalidTestNotificationToken);
    }
    const auto found = store.testNotification(token);
    // Its status is there once the first attempt to send it has been made.
    if (!found || found->attempts.empty()) return ApiAnswer::error(ApiError::testNotificationNotFound);
    return ApiAnswer{200, json::serialize(json::object{{"signedPayload", found->signedPayload},
                                                       {"sendAttempts", sendAttempts(*found)}})};
  });
}

ApiAnswer notificationHistory(LocalStore& store, const std::string& body,
                              const std::string& paginationTokenText) {
  return guarded([&] {
    const auto parsed = jsonObject(body);
    if (!parsed) return ApiAnswer::error(ApiError::generalBadRequest);
    const auto& request = *parsed;

    const auto start = dateIn(request, "startDate");
    if (!start) return ApiAnswer::error(ApiError::invalidStartDate);
    const auto end = dateIn(request, "endDate");
    if (!end) return ApiAnswer::error(ApiError::invalidEndDate);
    if (*end <= *start) return ApiAnswer::error(ApiError::startDateAfterEndDate);
    const auto now = store.now();
    // History reaches back 30 days in the sandbox, 180 elsewhere.
    const auto reach = std::chrono::days(store.environment() == "Sandbox" ? 30 : 180);
    if (*start < now - reach) return ApiAnswer::error(ApiError::startDateTooFarInPast);

    NotificationQuery query;
    query.start = *start;
    query.end = std::min(*end, now + std::chrono::milliseconds(1));
    const auto text = [&](const char* key) -> std::optional<std::string> {
      const auto* value = request.if_contains(key);
      if (!value || value->is_null()) return std::nullopt;
      if (!value->is_string()) return std::string("\x01");  // never a valid value
      return std::string(value->get_string());
    };
    query.type = text("notificationType");
    query.subtype = text("notificationSubtype");
    if (query.subtype && !query.type) return ApiAnswer::error(ApiError::invalidNotificationType);
    if (query.type) {
      const auto known = notificationTypes().find(*query.type);
      if (known == notificationTypes().end() ||
          (query.subtype && (query.subtype->empty() || !known->second.contains(*query.subtype)))) {
        return ApiAnswer::error(ApiError::invalidNotificationType);
      }
    }
    // The customer whose notifications are asked for, by any of their transactions.
    auto transactionID = text("transactionId");
    if (!transactionID) transactionID = text("originalTransactionId");
    if (transactionID) {
      if (query.type) return ApiAnswer::error(ApiError::multipleFiltersSupplied);
      const auto id = transactionNumber(*transactionID);
      if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
      if (!store.signedForm(*id)) return ApiAnswer::error(ApiError::transactionIdNotFound);
      query.onlyWithTransaction = true;
    }
    if (const auto* failures = request.if_contains("onlyFailures")) {
      if (!failures->is_bool() && !failures->is_null()) return ApiAnswer::error(ApiError::generalBadRequest);
      query.onlyFailures = failures->is_bool() && failures->get_bool();
    }

    const auto filters = filterHash(json::serialize(json::array{
        platform::millisecondsSince1970(*start), platform::millisecondsSince1970(*end),
        query.type.value_or(""), query.subtype.value_or(""), transactionID.value_or(""),
        query.onlyFailures}));
    if (!paginationTokenText.empty()) {
      const auto after = pageStart(paginationTokenText, filters);
      if (!after) return ApiAnswer::error(ApiError::invalidPaginationToken);
      query.afterSequence = *after;
    }
    query.limit = kPageSize + 1;
    auto found = store.notificationHistory(query);
    const bool hasMore = found.size() > kPageSize;
    if (hasMore) found.resize(kPageSize);
    json::array history;
    for (const auto& notification : found) {
      history.push_back({{"signedPayload", notification.signedPayload},
                         {"sendAttempts", sendAttempts(notification)}});
    }
    json::object answer{{"notificationHistory", std::move(history)}, {"hasMore", hasMore}};
    if (hasMore) answer["paginationToken"] = paginationToken(found.back().sequence, filters);
    return ApiAnswer{200, json::serialize(answer)};
  });
}

}  // namespace appstore::server
