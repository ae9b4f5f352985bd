// The simulated App Store: purchases, the history and its listings, every control a test
// session offers, and the updates sequences.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "platform/base64.h"
#include "platform/task.h"
#include "storekit/device.h"
#include "storekit/jws.h"
#include "storekit/product.h"
#include "appstore/subscription_rules.h"
#include "support/store_entries.h"

namespace storekit {
namespace {

using namespace std::chrono_literals;
using IDs = std::vector<std::uint64_t>;
using appstore::LocalStore;
using testsupport::transactionOf;
namespace time_rate = appstore::time_rate;

const std::string kSampleFile = VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit";
const std::string kCoins = "com.vorntesk.sample.coins100";
const std::string kRemoveAds = "com.vorntesk.sample.removeads";
const std::string kSeasonPass = "com.vorntesk.sample.seasonpass";
const std::string kPro = "com.vorntesk.sample.pro.monthly";
const std::string kBasic = "com.vorntesk.sample.basic.monthly";

IDs ids(TransactionSequence sequence) {
  IDs result;
  while (auto element = sequence.next()) result.push_back(element->unsafePayloadValue().id());
  return result;
}

// The next element's transaction, read inside a task; nothing if none comes within `wait`.
std::optional<Transaction> read(TransactionSequence& sequence, std::chrono::milliseconds wait) {
  auto promise = std::make_shared<std::promise<std::optional<Transaction>>>();
  auto future = promise->get_future();
  auto task = platform::Task::run([&sequence, promise] {
    const auto element = sequence.next();
    promise->set_value(element ? std::optional(element->unsafePayloadValue()) : std::nullopt);
  });
  if (future.wait_for(wait) == std::future_status::ready) return future.get();
  task.cancel();  // a waiting next() then returns nothing promptly
  EXPECT_EQ(future.wait_for(1s), std::future_status::ready) << "a cancelled read goes on";
  return future.get();
}
Transaction next(TransactionSequence& sequence, std::chrono::milliseconds wait = 2s) {
  if (auto transaction = read(sequence, wait)) return *transaction;
  throw std::runtime_error("nothing arrived on the sequence");
}
bool quiet(TransactionSequence& sequence) { return !read(sequence, 150ms); }

// What the three listings show, in their order.
void expectLists(const IDs& all, const IDs& unfinished, const IDs& entitlements) {
  EXPECT_EQ(ids(Transaction::all()), all) << "all";
  EXPECT_EQ(ids(Transaction::unfinished()), unfinished) << "unfinished";
  EXPECT_EQ(ids(Transaction::currentEntitlements()), entitlements) << "currentEntitlements";
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = LocalStore::setShared(store_); }
  void TearDown() override { LocalStore::setShared(previous_); }

  std::uint64_t buy(const std::string& productID) {
    const auto result = Product::products({productID}).at(0).purchase();
    return std::get<PurchaseResult::Success>(result.value).verification.unsafePayloadValue().id();
  }

  std::shared_ptr<LocalStore> store_ = LocalStore::createFromFile(kSampleFile);
  std::shared_ptr<LocalStore> previous_;
};

namespace json = boost::json;
using Reason = Transaction::RevocationReason;
platform::Decimal dec(const char* text) { return *platform::Decimal::parse(text); }
constexpr double kDay = 24 * 3600;

TEST_F(StoreTest, PurchaseMakesASignedTransactionThatFinishingDropsFromHistory) {
  auto updates = Transaction::updates();
  const auto result = Product::products({kCoins}).at(0).purchase({PurchaseOption::quantity(3)});
  const auto& verification = std::get<PurchaseResult::Success>(result.value).verification;
  ASSERT_TRUE(verification.isVerified());
  const auto t = verification.unsafePayloadValue();
  const auto text = *decodeJWSPayload(verification.jwsRepresentation());
  EXPECT_EQ(t.jsonRepresentation(), text);
  auto payload = json::parse(text).as_object();
  EXPECT_EQ(payload.at("originalTransactionId"), payload.at("transactionId"));
  // The device's copy proves which device it was made for.
  std::string lower =
      t.deviceVerificationNonce().uuidString() + store_->deviceIdentifier().uuidString();
  std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
  EXPECT_EQ(t.deviceVerification(), appstore::sha384(lower));
  for (const char* key :
       {"transactionId", "originalTransactionId", "purchaseDate", "originalPurchaseDate",
        "signedDate", "appTransactionId", "deviceVerification", "deviceVerificationNonce"}) {
    EXPECT_EQ(payload.erase(key), 1u) << key;
  }
  EXPECT_EQ(payload, json::parse(R"({"bundleId":"com.vorntesk.example","quantity":3,
      "productId":"com.vorntesk.sample.coins100","type":"Consumable","environment":"Xcode",
      "inAppOwnershipType":"PURCHASED","transactionReason":"PURCHASE","storefront":"USA",
      "storefrontId":"143441","price":2970,"currency":"USD"})"));

  const auto second = buy(kCoins);
  expectLists({t.id(), second}, {t.id(), second}, {});
  t.finish();
  expectLists({second}, {second}, {});
  // The app's own purchases are not repeated on updates.
  EXPECT_TRUE(quiet(updates));
}

// (Renewal and the renewal info as auto-renew is turned off, with billing issues, or on a
// refund: tests/tools/subscription_lifecycle_test.cpp and tests/interop.)
TEST_F(StoreTest, SubscriptionStatusHandsOutTheVerifiedRenewalInfoAndTheControlsEndOrRenewIt) {
  auto updates = Transaction::updates();
  const auto product = Product::products({kPro}).at(0);
  const auto& group = product.subscription->subscriptionGroupID;
  EXPECT_TRUE(Product::SubscriptionInfo::status(group).empty());
  const auto id = buy(kPro);
  const auto trial = transactionOf(store_->allTransactions().at(0)).value();
  EXPECT_EQ(*trial.expirationDate() - trial.purchaseDate(), std::chrono::days(7));

  const auto statuses = Product::SubscriptionInfo::status(group);
  ASSERT_EQ(statuses.size(), 1u);
  EXPECT_EQ(statuses[0].state, Product::SubscriptionInfo::RenewalState::subscribed());
  ASSERT_TRUE(statuses[0].transaction.isVerified() && statuses[0].renewalInfo.isVerified());
  EXPECT_EQ(statuses[0].transaction.payloadValue().id(), id);
  const auto info = statuses[0].renewalInfo.payloadValue();
  EXPECT_EQ(info.originalTransactionID, id);
  EXPECT_EQ(info.currentProductID, kPro);
  EXPECT_EQ(info.autoRenewPreference, kPro);
  EXPECT_TRUE(info.willAutoRenew);
  EXPECT_FALSE(info.isInBillingRetry || info.expirationReason || info.gracePeriodExpirationDate);
  EXPECT_EQ(info.renewalDate, trial.expirationDate());
  EXPECT_EQ(info.renewalPrice, product.price);  // the trial ends; the full price follows
  EXPECT_EQ(info.environment, "Xcode");

  // Expired with auto-renew off; turning it on afterwards does not bring it back.
  store_->disableAutoRenewForTransaction(id);
  store_->advanceTime(40 * kDay);
  store_->enableAutoRenewForTransaction(id);
  store_->advanceTime(40 * kDay);
  EXPECT_TRUE(quiet(updates));
  expectLists({id}, {id}, {});
  store_->forceRenewalOfSubscription(kPro);
  const auto forced = next(updates, 5s);
  EXPECT_EQ(forced.reason(), Transaction::Reason::renewal());
  EXPECT_EQ(ids(Transaction::currentEntitlements()), IDs{forced.id()});
  store_->expireSubscription(kPro);
  EXPECT_TRUE(quiet(updates));  // expiry is not a transaction
  EXPECT_TRUE(ids(Transaction::currentEntitlements()).empty());
  EXPECT_THROW(store_->expireSubscription(kPro), std::invalid_argument);

  store_->setSimulatedError(appstore::StoreKitAPI::subscriptionStatus,
                            appstore::StoreFailure::named("networkError"));
  EXPECT_THROW(Product::SubscriptionInfo::status(group), StoreKitError);
}

TEST_F(StoreTest, PayAsYouGoIntroductoryOfferLastsItsPeriodsAndAnUpgradeReplacesTheEntitlement) {
  auto updates = Transaction::updates();
  const auto first = buy(kBasic);
  std::vector<std::string> prices{transactionOf(store_->allTransactions().at(0))->price()->toString()};
  for (int month = 0; month < 3; ++month) {
    store_->advanceTime(31 * kDay);
    prices.push_back(next(updates).price()->toString());
  }
  EXPECT_EQ(prices, (std::vector<std::string>{"0.99", "0.99", "0.99", "2.99"}));

  // A higher tier takes over at once, in the same subscription.
  const auto pro = buy(kPro);
  const auto all = store_->allTransactions();
  EXPECT_TRUE(transactionOf(all.at(3))->isUpgraded());  // the latest renewal of Basic
  EXPECT_EQ(ids(Transaction::currentEntitlements()), IDs{pro});
  EXPECT_EQ(transactionOf(all.back())->originalID(), first);
  EXPECT_FALSE(transactionOf(all.back())->offer());  // no second introductory offer in the group
}

// (Interrupted purchases resolved: tests/tools/subscription_changes_test.cpp.)
TEST_F(StoreTest, AskToBuyRequestsArriveOnUpdatesOnceApproved) {
  auto updates = Transaction::updates();
  store_->setAskToBuyEnabled(true);
  for (const auto& id : {kRemoveAds, kCoins}) {
    EXPECT_TRUE(std::holds_alternative<PurchaseResult::Pending>(
        Product::products({id}).at(0).purchase().value));
  }
  const auto history = store_->allTransactions();
  ASSERT_EQ(history.size(), 2u);
  EXPECT_TRUE(history[0].pendingAskToBuyConfirmation && !transactionOf(history[0]));
  expectLists({}, {}, {});

  store_->declineAskToBuyTransaction(history[1].identifier);
  EXPECT_TRUE(quiet(updates));
  store_->approveAskToBuyTransaction(history[0].identifier);
  EXPECT_EQ(next(updates).productID(), kRemoveAds);
  const IDs approved{history[0].identifier};
  expectLists(approved, approved, approved);
}

// (Promotional offers bought outside the app: tests/tools/store_controls_test.cpp.)
TEST_F(StoreTest, AnOfferCodeRedeemedOutsideTheAppArrivesOnUpdates) {
  auto updates = Transaction::updates();
  const auto code = transactionOf(store_->redeemOfferCode(kPro, "Spring Code"));
  EXPECT_EQ(next(updates).id(), code.id());
  EXPECT_EQ(code.offerType(), Transaction::OfferType::code());
  EXPECT_EQ(code.price(), dec("0.99"));
}

TEST_F(StoreTest, RefusedPurchaseOptionsNameTheirFaultAndLeaveNoTrace) {
  const auto promo = [](std::string offerID, std::string signature) {
    return PurchaseOption::promotionalOffer(std::move(offerID), "KEY1", platform::UUID::random(),
                                            std::move(signature), 1);
  };
  const std::string kComeback = "trailclub.comeback.sixmonths";
  using Code = PurchaseError::Code;
  const struct {
    std::string productID;
    PurchaseOption option;
    Code expected;
  } cases[] = {
      {kCoins, PurchaseOption::quantity(0), Code::invalidQuantity},
      {kCoins, PurchaseOption::quantity(-1), Code::invalidQuantity},
      {kBasic, PurchaseOption::quantity(11), Code::invalidQuantity},
      {kCoins, promo(kComeback, "c2lnbmF0dXJl"), Code::ineligibleForOffer},
      {kRemoveAds, promo(kComeback, "c2lnbmF0dXJl"), Code::ineligibleForOffer},
      {kPro, promo("no.such.offer", "c2lnbmF0dXJl"), Code::invalidOfferIdentifier},
      {kPro, promo(kComeback, "not base64!"), Code::invalidOfferSignature},
      {kPro, promo(kComeback, ""), Code::missingOfferParameters},
  };
  for (const auto& row : cases) {
    try {
      Product::products({row.productID}).at(0).purchase({row.option});
      ADD_FAILURE() << row.productID << ": bought, expected " << PurchaseError(row.expected).caseName();
    } catch (const PurchaseError& error) {
      EXPECT_EQ(error.caseName(), PurchaseError(row.expected).caseName()) << row.productID;
    }
  }
  // A refused option leaves no trace.
  expectLists({}, {}, {});
  // The same purchases go through with the option corrected.
  buy(kCoins);
  const auto corrected = Product::products({kPro}).at(0).purchase({promo(kComeback, "c2lnbmF0dXJl")});
  EXPECT_TRUE(std::holds_alternative<PurchaseResult::Success>(corrected.value));
}

TEST_F(StoreTest, RefundRevokesReSignsAndRemovesTheEntitlementAndClearingForgetsAll) {
  auto updates = Transaction::updates();
  const auto adsID = buy(kRemoveAds);
  const auto proID = buy(kPro);
  store_->refundTransaction(adsID, Reason::developerIssue().rawValue);
  store_->refundTransaction(proID);
  // (The developer-issue refund as the host sees it: tests/integration.)
  EXPECT_EQ(next(updates).id(), adsID);
  EXPECT_EQ(next(updates).revocationReason(), Reason::other());
  expectLists({adsID, proID}, {adsID, proID}, {});
  EXPECT_TRUE(Transaction::all().next()->unsafePayloadValue().revocationDate());
  // A refunded subscription does not renew.
  store_->advanceTime(10 * kDay);
  EXPECT_TRUE(quiet(updates));

  store_->clearTransactions();
  expectLists({}, {}, {});
  EXPECT_TRUE(quiet(updates));
  // After clearing, the group's introductory offer is available again.
  buy(kPro);
  EXPECT_TRUE(transactionOf(store_->allTransactions().back())->offer());
}

TEST_F(StoreTest, TamperedTokensFailVerification) {
  const auto second = buy(kRemoveAds);
  // A token altered after signing comes out unverified with an invalid signature.
  auto jws = store_->allTransactions()[0].jwsRepresentation;
  auto payload = *decodeJWSPayload(jws);
  payload.replace(payload.find("\"quantity\":1"), 12, "\"quantity\":9");
  const auto tampered = jws.substr(0, jws.find('.') + 1) + platform::base64URLEncode(payload) +
                        jws.substr(jws.rfind('.'));
  store_->replaceSignedTransaction(second, tampered);
  auto entitlements = Transaction::currentEntitlements();
  const auto element = entitlements.next();
  EXPECT_EQ(element->verificationError()->code(), VerificationError::Code::invalidSignature);
  EXPECT_EQ(element->unsafePayloadValue().purchasedQuantity(), 9);
  // One that cannot be read at all comes out with the stored transaction.
  store_->replaceSignedTransaction(second, jws.substr(0, jws.rfind('.')));
  const auto unreadable = Transaction::currentEntitlements().next();
  EXPECT_EQ(unreadable->verificationError()->code(), VerificationError::Code::invalidEncoding);
  EXPECT_EQ(unreadable->unsafePayloadValue().id(), second);
}

// (An unavailable storefront and a next purchase result used once: tests/integration.)
TEST_F(StoreTest, StorefrontAndLocaleControlsShowInProductsAndPurchasesUntilReset) {
  store_->setStorefront("DEU");
  store_->setLocale("de_DE");
  const auto coins = Product::products({kCoins}).at(0);
  EXPECT_EQ(coins.displayName, "100 M\xC3\xBCnzen");
  EXPECT_EQ(coins.displayPrice, "0,99\xC2\xA0\xE2\x82\xAC");
  buy(kCoins);
  const auto t = transactionOf(store_->allTransactions().back()).value();
  EXPECT_EQ(t.storefront(), (Storefront{"DEU", "143443", "EUR"}));

  store_->resetToDefaultState();
  EXPECT_EQ(store_->storefront(), "USA");
  EXPECT_TRUE(store_->allTransactions().empty());
}

TEST_F(StoreTest, UpdatesReplayUnfinishedOnceAndBroadcastTheRest) {
  buy(kCoins);
  const auto unfinished = buy(kRemoveAds);
  Transaction::all().next()->unsafePayloadValue().finish();
  auto first = Transaction::updates();
  auto second = Transaction::updates();
  // Only the first listener hears about what was left unfinished.
  EXPECT_EQ(next(first).id(), unfinished);
  EXPECT_TRUE(quiet(first));
  EXPECT_TRUE(quiet(second));
  const auto outside = transactionOf(store_->buyProduct(kSeasonPass));
  EXPECT_EQ(next(first).id(), outside.id());
  EXPECT_EQ(next(second).id(), outside.id());
}

TEST_F(StoreTest, TimeRateRenewsOnItsOwn) {
  store_->setTimeRate(time_rate::kOneRenewalEveryTwoSeconds);
  auto updates = Transaction::updates();
  const auto trial = buy(kPro);
  const auto t = transactionOf(store_->allTransactions().at(0)).value();
  EXPECT_EQ(*t.expirationDate() - t.purchaseDate(), 2s);
  // The renewal thread renews without anyone advancing the clock.
  const auto renewed = next(updates, 5s);
  EXPECT_EQ(renewed.originalID(), trial);
  EXPECT_EQ(renewed.purchaseDate(), *t.expirationDate());
}

}  // namespace
}  // namespace storekit
