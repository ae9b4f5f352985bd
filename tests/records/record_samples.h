// Records with no optional field set, and their wire forms written out by hand.
#pragma once

#include "records/apple_product.h"
#include "records/apple_transaction.h"

#include <string_view>

namespace VornTeskPaymentsAddonApple::samples {

// clang-format off
inline AppleTransaction minimalTransaction() {
  const platform::Date date = platform::dateFromMillisecondsSince1970(1'748'779'200'000);
  return {.id = 1, .originalId = 1, .productId = "coins",
          .productType = AppleProductType::consumable, .purchaseDate = date,
          .originalPurchaseDate = date, .quantity = 1,
          .transactionReason = AppleTransactionReason::purchase, .signedDate = date,
          .environment = AppleEnvironment::production,
          .ownershipType = AppleOwnershipType::purchased,
          .verificationStatus = AppleVerificationStatus::verified, .bundleId = "com.example.app"};
}

inline AppleProduct coinsProduct() {
  return {"coins", "100 Coins", "A \"pile\"", "$0.99", *platform::Decimal::parse("0.99"), "en_US",
          AppleProductType::consumable, std::nullopt, false};
}
// clang-format on

inline constexpr std::string_view kMinimalTransactionJSON =
    R"({"id":1,"originalId":1,"productId":"coins","productType":1,)"
    R"("purchaseDate":"2025-06-01T12:00:00.000Z",)"
    R"("originalPurchaseDate":"2025-06-01T12:00:00.000Z",)"
    R"("revocationReason":0,"quantity":1,"transactionReason":1,)"
    R"("signedDate":"2025-06-01T12:00:00.000Z","environment":1,"ownershipType":1,)"
    R"("jwsRepresentation":"","verificationStatus":1,"verificationError":0,)"
    R"("bundleId":"com.example.app","isUpgraded":false,"offerType":0,)"
    R"("storefrontCountryCode":"","deviceVerification":"","deviceVerificationNonce":""})";

inline constexpr std::string_view kCoinsJSON =
    R"({"id":"coins","displayName":"100 Coins","description":"A \"pile\"","displayPrice":"$0.99",)"
    R"("price":"0.99","priceLocale":"en_US","productType":1,"isFamilyShareable":false})";

}  // namespace VornTeskPaymentsAddonApple::samples
