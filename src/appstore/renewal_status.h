// RenewalStatus: where an auto-renewable subscription stands, in the App Store's own numbers
// (the status its server reports and its renewal info implies). A plain value; any thread.
#pragma once

namespace appstore {

enum class RenewalStatus : int {
  subscribed = 1,
  expired = 2,
  billingRetry = 3,
  gracePeriod = 4,  // entitled, while billing is retried
  revoked = 5,
};

}  // namespace appstore
