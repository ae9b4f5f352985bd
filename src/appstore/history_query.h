// What a page of the account's purchase history or refund history is asked for: the filters
// and the position a page continues from. Plain values shared by the store and its ledger; any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/date.h"

namespace appstore {

// Purchased transactions only (never a request waiting for approval, declined or interrupted),
// in the order of their latest change (`revision`). Filters of different kinds all apply;
// within a list any one value matches, and an empty list matches everything.
struct HistoryQuery {
  std::optional<platform::Date> start;   // purchased at or after
  std::optional<platform::Date> end;     // purchased before
  std::vector<std::string> productIDs;
  std::vector<std::string> productTypes;  // the App Store's type names ("Consumable", ...)
  std::vector<std::string> groupIDs;
  std::optional<bool> familyShared;
  std::optional<bool> revoked;
  // False leaves out consumables the app has finished, unless they were revoked.
  bool withFinishedConsumables = true;
  bool newestFirst = false;
  // The revision of the last transaction of the previous page: the page holds those changed
  // after it (oldest first) or before it (newest first).
  std::optional<std::uint64_t> after;
  std::size_t limit = 20;
};

// Where a page of refunds ends: they are listed by revocation date, then id.
struct RefundPosition {
  platform::Date revoked;
  std::uint64_t id = 0;
};

}  // namespace appstore
