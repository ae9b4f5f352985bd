// The refund controls: a refund Apple grants, and the path of one the customer asks for in the
// app (Apple asks the developer for consumption information, then grants or declines), and a
// granted refund reversed after a dispute. Each tells the device through the update stream
// when a transaction changes, and the developer's server through the notifications.
#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "appstore/local_store.h"
#include "appstore/store_state.h"

namespace appstore {

namespace {
[[noreturn]] void invalid(const std::string& message) { throw std::invalid_argument(message); }

std::string idText(std::uint64_t id) { return std::to_string(id); }

constexpr const char* kRefundRequestReasons[] = {"UNINTENDED_PURCHASE", "FULFILLMENT_ISSUE",
                                                 "UNSATISFIED_WITH_PURCHASE", "LEGAL", "OTHER"};
}  // namespace

void LocalStore::refundTransaction(std::uint64_t identifier, std::int64_t reason) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto draft = state.draftOf(identifier);
  if (!draft) invalid("no transaction " + idText(identifier));
  if (draft->row.revocationDate) invalid("transaction " + idText(identifier) + " is already refunded");
  draft->payload["revocationDate"] = platform::millisecondsSince1970(state.now());
  draft->payload["revocationReason"] = reason;
  SignedTransaction refunded;
  state.commit([&](LedgerWrite& write) {
    refunded = state.sign(write, *draft);
    if (auto* group = state.groupOf(draft->row); group && group->latestID == identifier) {
      auto changed = *group;
      changed.autoRenew = false;
      changed.status = RenewalStatus::revoked;
      state.putGroup(write, changed);
    }
    state.notify(write, draft->row.familyShared ? "REVOKE" : "REFUND", "", identifier);
  });
  state.broadcast({refunded});
}

void LocalStore::requestRefund(std::uint64_t identifier, const std::string& reason) {
  if (std::find(std::begin(kRefundRequestReasons), std::end(kRefundRequestReasons), reason) ==
      std::end(kRefundRequestReasons)) {
    invalid("a refund request's reason is one of UNINTENDED_PURCHASE, FULFILLMENT_ISSUE, "
            "UNSATISFIED_WITH_PURCHASE, LEGAL, OTHER, not \"" + reason + "\"");
  }
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto row = state.ledger->transaction(identifier);
  if (!row || row->state != EntryState::purchased) invalid("no transaction " + idText(identifier));
  if (row->revocationDate) invalid("transaction " + idText(identifier) + " is already refunded");
  if (row->familyShared) invalid("transaction " + idText(identifier) + " was shared by the family");
  state.commit([&](LedgerWrite& write) {
    // Asking for a refund of a subscription turns its renewal off.
    if (auto* group = state.groupOf(*row); group && group->latestID == identifier && group->autoRenew) {
      auto changed = *group;
      changed.autoRenew = false;
      state.putGroup(write, changed);
      state.notify(write, "DID_CHANGE_RENEWAL_STATUS", "AUTO_RENEW_DISABLED", identifier);
    }
    if (state.notificationsURL.empty()) return;
    auto data = state.appData();
    data["signedTransactionInfo"] = row->signedForm;
    if (const auto* group = state.groupOf(*row)) {
      data["signedRenewalInfo"] = group->signedRenewalInfo;
      data["status"] = static_cast<int>(group->status);
    }
    data["consumptionRequestReason"] = reason;
    state.notifyWith(write, "CONSUMPTION_REQUEST", "", {{"data", std::move(data)}}, row->originalID);
  });
  wakeRenewals();
}

void LocalStore::declineRefund(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto row = state.ledger->transaction(identifier);
  if (!row || row->state != EntryState::purchased) invalid("no transaction " + idText(identifier));
  if (row->revocationDate) invalid("transaction " + idText(identifier) + " is already refunded");
  state.commit([&](LedgerWrite& write) { state.notify(write, "REFUND_DECLINED", "", identifier); });
}

void LocalStore::reverseRefund(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto draft = state.draftOf(identifier);
  if (!draft || !draft->row.revocationDate || draft->row.familyShared) {
    invalid("transaction " + idText(identifier) + " has no refund to reverse");
  }
  for (const char* key : {"revocationDate", "revocationReason", "revocationType", "revocationPercentage"}) {
    draft->payload.erase(key);
  }
  SignedTransaction reinstated;
  state.commit([&](LedgerWrite& write) {
    reinstated = state.sign(write, *draft);
    if (auto* group = state.groupOf(draft->row); group && group->latestID == identifier) {
      // The subscription stands as if never refunded; its renewal date is unchanged, and the
      // lifecycle settles it (an expiry that came due meanwhile).
      auto changed = *group;
      changed.status = RenewalStatus::subscribed;
      state.putGroup(write, changed);
    }
    state.notify(write, "REFUND_REVERSED", "", identifier);
    (void)state.renewDue(write);
  });
  state.broadcast({reinstated});
  wakeRenewals();
}

}  // namespace appstore
