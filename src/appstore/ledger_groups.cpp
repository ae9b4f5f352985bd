#include "appstore/ledger_groups.h"

#include "appstore/ledger_sql.h"

namespace appstore::ledger_groups {
using namespace ledger_sql;
namespace {

void bindOptional(SQLite::Statement& statement, int index, std::optional<int> value) {
  if (value) {
    statement.bind(index, *value);
  } else {
    statement.bind(index);
  }
}

}  // namespace

const char* const kGroupColumns =
    "group_id, original_id, original_purchase_date, latest_id, auto_renew, pending_product_id, "
    "offer_periods_left, continuing_offer, status, expiration_intent, billing_issue_since, "
    "grace_period_expires, price_increase_status, renewal_price, signed_renewal_info, extensions, "
    "recent_start";

LedgerGroup readGroup(const SQLite::Statement& row) {
  LedgerGroup group;
  group.groupID = row.getColumn(0).getString();
  group.originalID = static_cast<std::uint64_t>(row.getColumn(1).getInt64());
  group.originalPurchaseDate =
      platform::dateFromMillisecondsSince1970(row.getColumn(2).getInt64());
  group.latestID = static_cast<std::uint64_t>(row.getColumn(3).getInt64());
  group.autoRenew = row.getColumn(4).getInt() != 0;
  if (!row.getColumn(5).isNull()) group.pendingProductID = row.getColumn(5).getString();
  group.offerPeriodsLeft = row.getColumn(6).getInt64();
  group.continuingOffer = row.getColumn(7).getString();
  group.status = static_cast<RenewalStatus>(row.getColumn(8).getInt());
  if (!row.getColumn(9).isNull()) group.expirationIntent = row.getColumn(9).getInt();
  group.billingIssueSince = optionalDate(row.getColumn(10));
  group.gracePeriodExpires = optionalDate(row.getColumn(11));
  if (!row.getColumn(12).isNull()) group.priceIncreaseStatus = row.getColumn(12).getInt();
  group.renewalPrice = row.getColumn(13).getString();
  group.signedRenewalInfo = row.getColumn(14).getString();
  group.extensions = row.getColumn(15).getString();
  group.recentStart = optionalDate(row.getColumn(16));
  return group;
}

void bindGroup(SQLite::Statement& row, const LedgerGroup& group) {
  row.bind(1, group.groupID);
  bindId(row, 2, group.originalID);
  bindDate(row, 3, group.originalPurchaseDate);
  bindId(row, 4, group.latestID);
  row.bind(5, group.autoRenew ? 1 : 0);
  if (group.pendingProductID) {
    row.bind(6, *group.pendingProductID);
  } else {
    row.bind(6);
  }
  row.bind(7, group.offerPeriodsLeft);
  row.bind(8, group.continuingOffer);
  row.bind(9, static_cast<int>(group.status));
  bindOptional(row, 10, group.expirationIntent);
  bindDate(row, 11, group.billingIssueSince);
  bindDate(row, 12, group.gracePeriodExpires);
  bindOptional(row, 13, group.priceIncreaseStatus);
  row.bind(14, group.renewalPrice);
  row.bind(15, group.signedRenewalInfo);
  row.bind(16, group.extensions);
  bindDate(row, 17, group.recentStart);
}

}  // namespace appstore::ledger_groups
