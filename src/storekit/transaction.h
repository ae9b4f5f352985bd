// Transaction: one purchase, renewal or change as the App Store signed it. A Transaction is
// an immutable view of its signed payload (the App Store transaction JSON), which is also its
// backing JSON for keyed access. Members that newer systems added end the process when read
// on an older simulated system (see availability.h). Copies are cheap and share the payload;
// any thread may read them.
//
// The four sequences (updates, all, currentEntitlements, unfinished) are blocking iterators:
// next() waits as needed and answers nothing at the end, or as soon as the task that calls it
// is cancelled.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include <boost/json/object.hpp>

#include "platform/date.h"
#include "platform/decimal.h"
#include "platform/uuid.h"
#include "storekit/app_store.h"
#include "storekit/values.h"
#include "storekit/verification_result.h"

namespace storekit {

class Transaction;

// A sequence of verified-or-not transactions.
class TransactionSequence {
 public:
  class Source {
   public:
    virtual ~Source() = default;
    virtual std::optional<VerificationResult<Transaction>> next(std::stop_token stop) = 0;
  };

  explicit TransactionSequence(std::shared_ptr<Source> source) : source_(std::move(source)) {}

  // The next element; nothing at the end of the sequence or once the current task
  // (platform::Task::currentStopToken()) is cancelled.
  std::optional<VerificationResult<Transaction>> next();

 private:
  std::shared_ptr<Source> source_;
};

class Transaction {
 public:
  using ProductType = storekit::ProductType;
  using Environment = storekit::Environment;

  // Raw values are the integers of the signed payload's "offerType".
  struct OfferType {
    std::int64_t rawValue = 0;

    static OfferType introductory() { return {1}; }
    static OfferType promotional() { return {2}; }
    static OfferType code() { return {3}; }
    static OfferType winBack();  // iOS 18.0

    friend bool operator==(const OfferType&, const OfferType&) = default;
  };

  struct Reason {
    std::string rawValue;

    static Reason purchase() { return {"PURCHASE"}; }
    static Reason renewal() { return {"RENEWAL"}; }

    friend bool operator==(const Reason&, const Reason&) = default;
  };

  struct OwnershipType {
    std::string rawValue;

    static OwnershipType purchased() { return {"PURCHASED"}; }
    static OwnershipType familyShared() { return {"FAMILY_SHARED"}; }

    friend bool operator==(const OwnershipType&, const OwnershipType&) = default;
  };

  struct RevocationReason {
    std::int64_t rawValue = 0;

    static RevocationReason developerIssue() { return {1}; }
    static RevocationReason other() { return {0}; }

    friend bool operator==(const RevocationReason&, const RevocationReason&) = default;
  };

  // The offer a transaction was bought with (iOS 17.2).
  class Offer {
   public:
    using PaymentMode = OfferPaymentMode;

    Offer(std::optional<std::string> id, OfferType type, std::optional<PaymentMode> paymentMode,
          std::optional<SubscriptionPeriod> period)
        : id(std::move(id)), type(type), paymentMode(std::move(paymentMode)), period_(period) {}

    std::optional<std::string> id;
    OfferType type;
    std::optional<PaymentMode> paymentMode;
    // iOS 18.4.
    const std::optional<SubscriptionPeriod>& period() const;

   private:
    std::optional<SubscriptionPeriod> period_;
  };

  // Builds a transaction from a signed payload (the App Store transaction JSON). Throws
  // VerificationError: missingRequiredProperties when a required key is absent,
  // invalidEncoding when a value has the wrong kind.
  static Transaction fromPayload(boost::json::object payload);
  static Transaction fromJSON(std::string_view json);

  std::uint64_t id() const;
  std::uint64_t originalID() const;
  std::optional<std::string> webOrderLineItemID() const;
  std::string productID() const;
  std::optional<std::string> subscriptionGroupID() const;
  std::string appBundleID() const;
  platform::Date purchaseDate() const;
  platform::Date originalPurchaseDate() const;
  std::optional<platform::Date> expirationDate() const;
  std::int64_t purchasedQuantity() const;
  bool isUpgraded() const;
  OwnershipType ownershipType() const;
  std::optional<platform::Date> revocationDate() const;
  std::optional<RevocationReason> revocationReason() const;
  ProductType productType() const;
  std::optional<platform::UUID> appAccountToken() const;
  Environment environment() const;
  Reason reason() const;          // iOS 17.0
  Storefront storefront() const;  // iOS 17.0
  platform::Date signedDate() const;
  std::string deviceVerification() const;  // raw bytes
  platform::UUID deviceVerificationNonce() const;

  std::optional<Offer> offer() const;  // iOS 17.2
  // The forms older systems read.
  std::optional<OfferType> offerType() const;
  std::optional<std::string> offerID() const;
  std::optional<std::string> offerPaymentModeStringRepresentation() const;
  std::optional<std::string> offerPeriodStringRepresentation() const;  // iOS 18.4

  std::optional<platform::Decimal> price() const;  // iOS 17.2; whole currency units
  std::optional<std::string> currency() const;     // iOS 17.2; ISO 4217
  std::string appTransactionID() const;            // iOS 18.4

  // The signed payload's JSON text.
  const std::string& jsonRepresentation() const;

  // Keyed access to the backing JSON: nothing for a missing key or a value of another kind.
  std::optional<std::string> backingString(std::string_view key) const;
  std::optional<platform::Decimal> backingNumber(std::string_view key) const;
  const boost::json::object& payload() const;

  // Tells the store that the app delivered what the transaction bought. Never throws.
  void finish() const;

  static TransactionSequence updates();
  static TransactionSequence all();
  static TransactionSequence currentEntitlements();
  static TransactionSequence unfinished();

 private:
  struct Data;
  explicit Transaction(std::shared_ptr<const Data> data) : data_(std::move(data)) {}
  std::shared_ptr<const Data> data_;
};

}  // namespace storekit
