// StoreFailure: what the App Store answers a device with instead of what it asked for, either
// a refusal (an invalid quantity, an unknown offer) or a failure that the test session
// simulates. Families and case names are those of StoreKit's errors; the device turns a
// failure into the error it throws. Also the calls whose failure a session can simulate.
// Plain values and read-only tables; any thread.
#pragma once

#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace appstore {

// The StoreKit calls whose failure can be simulated (SKTestSession's StoreKitAPI).
enum class StoreKitAPI {
  loadProducts,
  purchase,
  verification,
  appStoreSync,
  appTransaction,
  subscriptionStatus,
  manageSubscriptions,
  refundRequest,
  offerCodeRedeem,
};
// "loadProducts" or the configuration file's "Load Products"; nothing for other names.
std::optional<StoreKitAPI> storeKitAPINamed(std::string_view name);

struct StoreFailure {
  enum class Family { storeKit, purchase, verification };

  Family family = Family::storeKit;
  // As StoreKit spells the case ("networkError", "invalidQuantity"), or "unknownCase(N)" for
  // a case a newer system adds.
  std::string caseName;
  // What a simulated system error says went wrong underneath; empty for the usual text.
  std::string underlyingDescription;

  // The case names of a family, in the order of their integer codes.
  static std::span<const char* const> caseNames(Family family);
  // The failure a case name stands for (spaces, '_', '-' and letter case ignored), in the
  // StoreKitError, PurchaseError or VerificationError family; nothing for other names.
  static std::optional<StoreFailure> named(std::string_view name);
  // Whether this failure may be simulated for `api`: verification failures for verification
  // only, purchase failures for purchases only.
  bool fits(StoreKitAPI api) const;

  friend bool operator==(const StoreFailure&, const StoreFailure&) = default;
};

// Thrown by the store for a request it refuses or a failure it simulates.
class StoreFailureError : public std::runtime_error {
 public:
  explicit StoreFailureError(StoreFailure failure)
      : std::runtime_error(failure.caseName), failure_(std::move(failure)) {}
  static StoreFailureError purchase(std::string caseName) {
    return StoreFailureError({StoreFailure::Family::purchase, std::move(caseName)});
  }
  const StoreFailure& failure() const { return failure_; }

 private:
  StoreFailure failure_;
};

// Lower case without spaces, '_' or '-': how names from files and controls are compared.
std::string foldName(std::string_view name);

}  // namespace appstore
