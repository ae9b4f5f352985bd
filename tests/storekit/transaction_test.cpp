#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include "platform/system_version.h"
#include "storekit/product.h"
#include "storekit/transaction.h"

namespace storekit {
namespace {

namespace json = boost::json;

json::object payload(std::string_view extra = "") {
  std::string text = R"({"transactionId":"42","originalTransactionId":"40","bundleId":"b",
    "productId":"p","purchaseDate":1700000000000,"originalPurchaseDate":1690000000000,
    "signedDate":1700000000500,"type":"Consumable","environment":"Xcode")";
  text += extra;
  text += "}";
  return json::parse(text).as_object();
}

TEST(Transaction, ReadsPayloadsIncludingValuesOutsideTheKnownCases) {
  const auto t = Transaction::fromPayload(payload(
      R"(,"quantity":5000000000,"type":"Rental","offerType":7,"offerDiscountType":"HALF_OFF",
         "environment":"Elsewhere","inAppOwnershipType":"BORROWED","revocationReason":5,
         "price":990,"offerPeriod":"P3M","appTransactionId":"7001","currency":"EUR",
         "appAccountToken":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","isUpgraded":true)"));
  EXPECT_EQ(t.id(), 42u);
  EXPECT_EQ(t.originalID(), 40u);
  EXPECT_EQ(t.purchasedQuantity(), 5000000000);
  EXPECT_EQ(t.productType().rawValue, "Rental");
  EXPECT_EQ(t.offerType()->rawValue, 7);
  EXPECT_EQ(t.offer()->paymentMode->rawValue, "HALF_OFF");
  EXPECT_EQ(t.environment().rawValue, "Elsewhere");
  EXPECT_EQ(t.ownershipType().rawValue, "BORROWED");
  EXPECT_EQ(t.revocationReason()->rawValue, 5);
  EXPECT_EQ(t.price()->toString(), "0.99");
  EXPECT_EQ(t.offerPeriodStringRepresentation(), "P3M");
  EXPECT_EQ(t.offer()->period(), (SubscriptionPeriod{3, SubscriptionPeriod::Unit::month}));
  EXPECT_EQ(t.appAccountToken()->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_TRUE(t.isUpgraded());
  // Without a reason in the payload, differing ids mean a renewal.
  EXPECT_EQ(t.reason(), Transaction::Reason::renewal());
  EXPECT_EQ(platform::millisecondsSince1970(t.originalPurchaseDate()), 1690000000000);

  // Keyed access gives nothing for a missing key or another kind of value.
  EXPECT_EQ(t.backingString("offerDiscountType"), "HALF_OFF");
  EXPECT_FALSE(t.backingString("price"));
  EXPECT_FALSE(t.backingString("missing"));
  EXPECT_EQ(t.backingNumber("price")->toString(), "990");
  EXPECT_FALSE(t.backingNumber("currency"));
  EXPECT_EQ(Transaction::fromJSON(t.jsonRepresentation()).purchasedQuantity(), 5000000000);

  const auto plain = Transaction::fromPayload(payload());
  EXPECT_EQ(plain.purchasedQuantity(), 1);
  EXPECT_FALSE(plain.offer() || plain.offerType() || plain.price() || plain.currency() ||
               plain.revocationReason() || plain.appAccountToken() || plain.isUpgraded());
}

TEST(Transaction, RefusesPayloadsMissingPropertiesOrOfTheWrongKind) {
  auto code = [](json::object object) {
    try {
      Transaction::fromPayload(std::move(object));
    } catch (const VerificationError& error) {
      return static_cast<int>(error.code());
    }
    return -1;
  };
  constexpr int missing = static_cast<int>(VerificationError::Code::missingRequiredProperties);
  constexpr int encoding = static_cast<int>(VerificationError::Code::invalidEncoding);
  for (const char* key : {"transactionId", "productId", "bundleId", "purchaseDate", "signedDate", "type"}) {
    auto object = payload();
    object.erase(key);
    EXPECT_EQ(code(object), missing) << key;
  }
  EXPECT_EQ(code(payload(R"(,"quantity":"3")")), encoding);
  EXPECT_EQ(code(payload(R"(,"appAccountToken":"not-a-uuid")")), encoding);
  EXPECT_EQ(code(payload(R"(,"isUpgraded":1)")), encoding);
  EXPECT_EQ(code(payload(R"(,"storefront":3)")), encoding);
  auto object = payload();
  object["transactionId"] = "12x";
  EXPECT_EQ(code(object), encoding);
  EXPECT_THROW(Transaction::fromJSON("[1]"), VerificationError);
}

class Availability : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  void TearDown() override { platform::SystemVersion::set(platform::SystemVersion::kDefault); }
};

TEST_F(Availability, NewerMembersAbortBelowTheirSystemAndWorkFromIt) {
  const auto t = Transaction::fromPayload(payload(R"(,"offerType":1,"offerPeriod":"P1W","price":0)"));
  SubscriptionInfo info;
  struct Case {
    platform::OperatingSystemVersion since;
    const char* member;
    std::function<void()> read;
  };
  const std::vector<Case> cases = {
      {{17, 0}, "Transaction.reason", [&] { t.reason(); }},
      {{17, 0}, "Transaction.storefront", [&] { t.storefront(); }},
      {{17, 2}, "Transaction.offer", [&] { t.offer(); }},
      {{17, 2}, "Transaction.price", [&] { t.price(); }},
      {{17, 2}, "Transaction.currency", [&] { t.currency(); }},
      {{18, 0}, "Transaction.OfferType.winBack", [] { Transaction::OfferType::winBack(); }},
      {{18, 0}, "Product.SubscriptionOffer.OfferType.winBack", [] { SubscriptionOffer::OfferType::winBack(); }},
      {{18, 0}, "Product.SubscriptionInfo.winBackOffers", [&] { info.winBackOffers(); }},
      {{18, 4}, "Transaction.appTransactionID", [&] { t.appTransactionID(); }},
      {{18, 4}, "Transaction.offerPeriodStringRepresentation", [&] { t.offerPeriodStringRepresentation(); }},
      {{18, 4}, "StoreKitError.unsupported", [] { StoreKitError::unsupported(); }},
  };
  platform::SystemVersion::set({18, 3});
  const auto offer = t.offer();  // read before lowering the version further
  for (const auto& c : cases) {
    const auto before = c.since.minor > 0 ? platform::OperatingSystemVersion{c.since.major, c.since.minor - 1}
                                          : platform::OperatingSystemVersion{c.since.major - 1, 9};
    platform::SystemVersion::set(before);
    EXPECT_DEATH(c.read(), c.member) << c.member;
    platform::SystemVersion::set(c.since);
    c.read();  // exactly at the threshold it is there
  }
  platform::SystemVersion::set({18, 3});
  EXPECT_DEATH(offer->period(), "Transaction.Offer.period");
  // The older forms stay readable everywhere.
  platform::SystemVersion::set({17, 0});
  EXPECT_EQ(t.offerType(), Transaction::OfferType::introductory());
  EXPECT_EQ(t.backingString("offerPeriod"), "P1W");
}

TEST(Errors, DescriptionsCasesAndNames) {
  const auto network = StoreKitError::networkError(URLError(URLError::kNotConnectedToInternet));
  EXPECT_EQ(network.urlError()->localizedDescription(), "The Internet connection appears to be offline.");
  EXPECT_EQ(URLError(URLError::kTimedOut, "").localizedDescription(), "");
  const auto system = StoreKitError::systemError(std::make_exception_ptr(std::runtime_error("disk on fire")));
  EXPECT_EQ(system.underlyingErrorDescription(), "disk on fire");
  EXPECT_NE(system.localizedDescription().find("disk on fire"), std::string::npos);
  EXPECT_TRUE(system.underlyingError());
  const auto future = StoreKitError::withCode(static_cast<StoreKitError::Code>(42));
  EXPECT_EQ(future.caseName(), "unknownCase(42)");
  EXPECT_FALSE(future.localizedDescription().empty());
  EXPECT_EQ(StoreKitError::named("Not Available In Storefront")->code(),
            StoreKitError::Code::notAvailableInStorefront);
  EXPECT_EQ(PurchaseError::named("invalid_offer_price")->code(), PurchaseError::Code::invalidOfferPrice);
  EXPECT_EQ(VerificationError::named("revokedCertificate")->caseName(), "revokedCertificate");
  EXPECT_FALSE(VerificationError::named("revoked"));
  // Any thrown value has a description; StoreKit's own errors give theirs.
  EXPECT_EQ(localizedDescription(std::make_exception_ptr(PurchaseError(PurchaseError::Code::invalidQuantity))),
            PurchaseError(PurchaseError::Code::invalidQuantity).localizedDescription());
  EXPECT_EQ(localizedDescription(std::make_exception_ptr(std::logic_error("x"))), "x");
  EXPECT_FALSE(localizedDescription(std::make_exception_ptr(7)).empty());
  EXPECT_STREQ(VerificationError(VerificationError::Code::invalidSignature).what(),
               "The signature is not valid.");
}

}  // namespace
}  // namespace storekit
