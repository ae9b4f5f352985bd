// Server Notifications V2 as the store makes them: each change that Apple tells a developer's
// server about is signed into a notification and added to the outbox in the same write as the
// change. Delivery is the sender's (appstore/server); the store keeps the outbox and the
// schedule of retries.
#include <boost/json/serialize.hpp>

#include "appstore/store_state.h"

namespace appstore {
namespace json = boost::json;

namespace {
// Hours after the previous attempt at which a failed delivery is tried again; after the last,
// the notification is given up.
constexpr int kRetryHours[] = {1, 12, 24, 48, 72};
constexpr const char* kNotificationVersion = "2.0";
// The version of the app whose purchases the store sells, as notifications report it.
constexpr const char* kBundleVersion = "1.0";
}  // namespace

json::object LocalStore::State::appData() const {
  return {{"bundleId", bundleID}, {"bundleVersion", kBundleVersion}, {"environment", environment}};
}

const char* LocalStore::State::expirySubtype(std::optional<int> expirationIntent) {
  switch (expirationIntent.value_or(0)) {
    case 1: return "VOLUNTARY";
    case 2: return "BILLING_RETRY";
    case 3: return "PRICE_INCREASE";
    case 4: return "PRODUCT_NOT_FOR_SALE";
    default: return "";
  }
}

void LocalStore::State::notify(LedgerWrite& write, std::string_view type, std::string_view subtype,
                               std::uint64_t transactionID, std::optional<platform::Date> at) {
  if (notificationsURL.empty()) return;
  const auto row = ledger->transaction(transactionID);
  if (!row || row->signedForm.empty()) return;
  auto data = appData();
  data["signedTransactionInfo"] = row->signedForm;
  // A family share held as the group's subscription carries its renewal info like any other.
  if (const auto* group = groupOf(*row);
      group && (!row->familyShared || group->originalID == row->originalID)) {
    data["signedRenewalInfo"] = group->signedRenewalInfo;
    data["status"] = static_cast<int>(group->status);
  } else if (row->productType == "Auto-Renewable Subscription") {
    // A family member's access: no renewal of its own to tell of, only where it stands.
    const auto status = row->revocationDate                                   ? RenewalStatus::revoked
                        : row->expiresDate && *row->expiresDate <= now() ? RenewalStatus::expired
                                                                              : RenewalStatus::subscribed;
    data["status"] = static_cast<int>(status);
  }
  notifyWith(write, type, subtype, {{"data", std::move(data)}}, row->originalID, at);
}

LedgerNotification LocalStore::State::notifyWith(LedgerWrite& write, std::string_view type,
                                                 std::string_view subtype, json::object body,
                                                 std::optional<std::uint64_t> originalID,
                                                 std::optional<platform::Date> at) {
  LedgerNotification notification;
  notification.uuid = lowercase(platform::UUID::random().uuidString());
  notification.type = type;
  notification.subtype = subtype;
  notification.originalTransactionID = originalID;
  notification.created = at.value_or(now());
  notification.nextAttempt = now();
  if (type == "TEST") notification.testToken = notification.uuid;
  json::object payload{{"notificationType", type}};
  if (!subtype.empty()) payload["subtype"] = subtype;
  payload["notificationUUID"] = notification.uuid;
  for (auto& [key, value] : body) payload[key] = std::move(value);
  payload["version"] = kNotificationVersion;
  payload["signedDate"] = platform::millisecondsSince1970(notification.created);
  notification.signedPayload = authority->sign(json::serialize(payload));
  write.putNotification(notification);
  return notification;
}

// --- The outbox, for the sender and the Server API -----------------------------------------

void LocalStore::setNotificationsURL(std::string url) {
  std::lock_guard lock(mutex_);
  state_->notificationsURL = std::move(url);
  state_->changed();
}

std::string LocalStore::notificationsURL() const {
  std::lock_guard lock(mutex_);
  return state_->notificationsURL;
}

std::uint64_t LocalStore::addChangeListener(std::function<void()> listener) {
  std::lock_guard lock(mutex_);
  const auto id = state_->nextChangeListener++;
  state_->changeListeners.emplace(id, std::move(listener));
  return id;
}

void LocalStore::removeChangeListener(std::uint64_t id) {
  std::lock_guard lock(mutex_);
  state_->changeListeners.erase(id);
}

std::vector<LedgerNotification> LocalStore::dueNotifications(std::size_t limit) {
  std::lock_guard lock(mutex_);
  return state_->ledger->dueNotifications(state_->now(), limit);
}

std::optional<platform::Date> LocalStore::nextNotificationDue() {
  std::lock_guard lock(mutex_);
  return state_->ledger->nextNotificationDue();
}

void LocalStore::recordSendAttempts(const std::vector<DeliveryResult>& results) {
  if (results.empty()) return;
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto now = state.now();
  state.commit([&](LedgerWrite& write) {
    for (const auto& attempt : results) {
      std::optional<platform::Date> next;
      if (attempt.result != "SUCCESS" && attempt.earlierAttempts < std::size(kRetryHours)) {
        next = now + std::chrono::hours(kRetryHours[attempt.earlierAttempts]);
      }
      write.recordSendAttempt(attempt.sequence, {now, attempt.result}, next);
    }
  });
}

std::vector<LedgerNotification> LocalStore::notificationHistory(const NotificationQuery& query) {
  std::lock_guard lock(mutex_);
  return state_->ledger->notifications(query);
}

std::optional<std::string> LocalStore::requestTestNotification() {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  if (state.notificationsURL.empty()) return std::nullopt;
  LedgerNotification made;
  state.commit([&](LedgerWrite& write) {
    made = state.notifyWith(write, "TEST", "", {{"data", state.appData()}}, std::nullopt);
  });
  return made.uuid;
}

std::optional<LedgerNotification> LocalStore::testNotification(const std::string& token) {
  std::lock_guard lock(mutex_);
  auto found = state_->ledger->testNotification(token);
  return found;
}

}  // namespace appstore
