#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <semaphore>
#include <set>
#include <thread>

#include <boost/json/parse.hpp>

#include "platform/base64.h"
#include "store_fixture.h"

namespace storekit::testing {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;
using Code = PurchaseError::Code;
constexpr auto kNothing = 150ms;

platform::Decimal dec(const char* text) { return *platform::Decimal::parse(text); }

Transaction payloadOf(const VerificationResult<Transaction>& result) {
  return result.unsafePayloadValue();
}

TEST_F(StoreTest, PurchaseMakesASignedTransactionThatFinishingDropsFromHistory) {
  auto updates = Transaction::updates();
  const auto token = platform::UUID::random();
  const auto product = Product::products({kCoins}).at(0);
  const auto result =
      product.purchase({PurchaseOption::quantity(3), PurchaseOption::appAccountToken(token)});
  const auto& verification = std::get<PurchaseResult::Success>(result.value).verification;
  ASSERT_TRUE(verification.isVerified());
  const auto t = verification.unsafePayloadValue();
  EXPECT_EQ(t.originalID(), t.id());
  EXPECT_EQ(t.productID(), kCoins);
  EXPECT_EQ(t.productType(), ProductType::consumable());
  EXPECT_EQ(t.purchasedQuantity(), 3);
  EXPECT_EQ(t.appAccountToken(), token);
  EXPECT_EQ(t.environment(), Environment::xcode());
  EXPECT_EQ(t.ownershipType(), Transaction::OwnershipType::purchased());
  EXPECT_EQ(t.reason(), Transaction::Reason::purchase());
  EXPECT_EQ(t.price(), dec("2.97"));
  EXPECT_EQ(t.currency(), "USD");
  EXPECT_EQ(t.backingNumber("price"), dec("2970"));
  EXPECT_EQ(t.storefront(), (Storefront{"USA", "143441", "USD"}));
  EXPECT_FALSE(t.expirationDate() || t.webOrderLineItemID() || t.subscriptionGroupID() || t.offer());
  EXPECT_FALSE(t.appTransactionID().empty());
  EXPECT_EQ(t.appBundleID(), store_->bundleID());
  EXPECT_LE(std::chrono::abs(t.purchaseDate() - store_->now()), 5s);
  EXPECT_EQ(t.jsonRepresentation(), *decodeJWSPayload(verification.jwsRepresentation()));
  // The device's copy proves which device it was made for.
  std::string lower = t.deviceVerificationNonce().uuidString() + store_->deviceIdentifier().uuidString();
  std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
  EXPECT_EQ(t.deviceVerification(), sha384(lower));

  const auto second = buy(kCoins);
  EXPECT_GT(second, t.id());
  EXPECT_EQ(ids(Transaction::all()), (std::vector<std::uint64_t>{t.id(), second}));
  EXPECT_EQ(ids(Transaction::unfinished()), (std::vector<std::uint64_t>{t.id(), second}));
  EXPECT_TRUE(ids(Transaction::currentEntitlements()).empty());
  t.finish();
  EXPECT_EQ(ids(Transaction::all()), std::vector<std::uint64_t>{second});
  EXPECT_EQ(ids(Transaction::unfinished()), std::vector<std::uint64_t>{second});
  // The app's own purchases are not repeated on updates.
  EXPECT_TRUE(take(updates, 1, kNothing).empty());
}

TEST_F(StoreTest, FreeTrialThenRenewalsOnTheStoreClock) {
  auto updates = Transaction::updates();
  const auto trialID = buy(kPro);
  const auto trial = store_->allTransactions().at(0).transaction.value();
  const auto offer = trial.offer().value();
  EXPECT_EQ(offer.type, Transaction::OfferType::introductory());
  EXPECT_EQ(offer.paymentMode, OfferPaymentMode::freeTrial());
  EXPECT_FALSE(offer.id);
  EXPECT_EQ(offer.period(), (SubscriptionPeriod{1, SubscriptionPeriod::Unit::week}));
  EXPECT_EQ(trial.price(), dec("0"));
  EXPECT_EQ(*trial.expirationDate() - trial.purchaseDate(), std::chrono::days(7));
  EXPECT_EQ(trial.subscriptionGroupID(), "21500001");
  EXPECT_TRUE(trial.webOrderLineItemID());
  EXPECT_EQ(ids(Transaction::currentEntitlements()), std::vector<std::uint64_t>{trialID});

  store_->advanceTime(8.0 * 24 * 3600);
  const auto renewals = take(updates, 1);
  ASSERT_EQ(renewals.size(), 1u);
  const auto renewal = payloadOf(renewals[0]);
  EXPECT_TRUE(renewals[0].isVerified());
  EXPECT_EQ(renewal.originalID(), trialID);
  EXPECT_EQ(renewal.reason(), Transaction::Reason::renewal());
  EXPECT_EQ(renewal.purchaseDate(), *trial.expirationDate());
  EXPECT_EQ(renewal.originalPurchaseDate(), trial.purchaseDate());
  EXPECT_FALSE(renewal.offer());
  EXPECT_EQ(renewal.price(), dec("6.99"));
  EXPECT_NE(renewal.webOrderLineItemID(), trial.webOrderLineItemID());
  EXPECT_EQ(ids(Transaction::currentEntitlements()), std::vector<std::uint64_t>{renewal.id()});
  EXPECT_EQ(ids(Transaction::all()), (std::vector<std::uint64_t>{trialID, renewal.id()}));
  // Both were delivered without being finished: the app still has to finish them.
  EXPECT_EQ(ids(Transaction::unfinished()), (std::vector<std::uint64_t>{trialID, renewal.id()}));

  // Auto-renew off: the period runs out and nothing renews.
  store_->disableAutoRenewForTransaction(renewal.id());
  store_->advanceTime(40.0 * 24 * 3600);
  EXPECT_TRUE(take(updates, 1, kNothing).empty());
  expectLists({trialID, renewal.id()}, {trialID, renewal.id()}, {});
}

TEST_F(StoreTest, PayAsYouGoIntroductoryOfferLastsItsPeriodsAndUpgradesReplaceTheEntitlement) {
  auto updates = Transaction::updates();
  const auto first = buy(kBasic);
  std::vector<std::string> prices{store_->allTransactions().at(0).transaction->price()->toString()};
  for (int month = 0; month < 3; ++month) {
    store_->advanceTime(31.0 * 24 * 3600);
    const auto renewed = take(updates, 1);
    ASSERT_EQ(renewed.size(), 1u);
    prices.push_back(payloadOf(renewed[0]).price()->toString());
    if (month < 2) {
      EXPECT_EQ(payloadOf(renewed[0]).offerType(), Transaction::OfferType::introductory());
      EXPECT_EQ(payloadOf(renewed[0]).offerPaymentModeStringRepresentation(), "PAY_AS_YOU_GO");
    }
  }
  EXPECT_EQ(prices, (std::vector<std::string>{"0.99", "0.99", "0.99", "2.99"}));

  // A higher tier takes over at once, in the same subscription.
  const auto basicLatest = ids(Transaction::currentEntitlements()).at(0);
  const auto pro = buy(kPro);
  const auto all = store_->allTransactions();
  const auto upgraded = std::find_if(all.begin(), all.end(), [&](auto& t) { return t.identifier == basicLatest; });
  EXPECT_TRUE(upgraded->transaction->isUpgraded());
  EXPECT_EQ(ids(Transaction::currentEntitlements()), std::vector<std::uint64_t>{pro});
  const auto proTransaction = all.back().transaction.value();
  EXPECT_EQ(proTransaction.originalID(), first);
  EXPECT_FALSE(proTransaction.offer());  // no second introductory offer in the group

  // A lower tier waits for the next renewal.
  const auto result = Product::products({kBasic}).at(0).purchase();
  EXPECT_EQ(std::get<PurchaseResult::Success>(result.value).verification.unsafePayloadValue().id(), pro);
  store_->advanceTime(31.0 * 24 * 3600);
  const auto renewed = take(updates, 1);
  ASSERT_EQ(renewed.size(), 1u);
  EXPECT_EQ(payloadOf(renewed[0]).productID(), kBasic);
  EXPECT_EQ(payloadOf(renewed[0]).originalID(), first);
}

TEST_F(StoreTest, AskToBuyApprovalArrivesOnUpdatesAndDeclineDeliversNothing) {
  auto updates = Transaction::updates();
  store_->setAskToBuyEnabled(true);
  for (const auto& id : {kRemoveAds, kCoins}) {
    EXPECT_TRUE(std::holds_alternative<PurchaseResult::Pending>(
        Product::products({id}).at(0).purchase().value));
  }
  auto pending = store_->allTransactions();
  ASSERT_EQ(pending.size(), 2u);
  EXPECT_TRUE(pending[0].pendingAskToBuyConfirmation);
  EXPECT_FALSE(pending[0].transaction);
  expectLists({}, {}, {});

  store_->declineAskToBuyTransaction(pending[1].identifier);
  EXPECT_TRUE(take(updates, 1, kNothing).empty());
  EXPECT_EQ(store_->allTransactions()[1].state, TestTransaction::State::declined);
  EXPECT_THROW(store_->approveAskToBuyTransaction(pending[1].identifier), std::invalid_argument);

  store_->approveAskToBuyTransaction(pending[0].identifier);
  const auto approved = take(updates, 1);
  ASSERT_EQ(approved.size(), 1u);
  EXPECT_EQ(payloadOf(approved[0]).id(), pending[0].identifier);
  EXPECT_EQ(payloadOf(approved[0]).productID(), kRemoveAds);
  expectLists({pending[0].identifier}, {pending[0].identifier}, {pending[0].identifier});
}

TEST_F(StoreTest, OutsidePurchasesWithOffersAndInterruptedPurchases) {
  auto updates = Transaction::updates();
  const auto promo = PurchaseOption::promotionalOffer("trailclub.comeback.sixmonths", "KEY1",
                                                      platform::UUID::random(), "c2lnbmF0dXJl", 1);
  const auto outside = store_->buyProduct(kPro, {promo});
  const auto delivered = take(updates, 1);
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(payloadOf(delivered[0]).id(), outside.id());
  const auto offer = outside.offer().value();
  EXPECT_EQ(offer.type, Transaction::OfferType::promotional());
  EXPECT_EQ(offer.id, "trailclub.comeback.sixmonths");
  EXPECT_EQ(offer.paymentMode, OfferPaymentMode::payUpFront());
  EXPECT_EQ(outside.offerPeriodStringRepresentation(), "P6M");
  EXPECT_EQ(outside.price(), dec("19.99"));
  EXPECT_EQ(ids(Transaction::currentEntitlements()), std::vector<std::uint64_t>{outside.id()});

  const auto code = store_->redeemOfferCode(kPro, "Spring Code");
  EXPECT_EQ(code.id(), outside.id());  // already subscribed to that product: nothing new

  store_->setInterruptedPurchasesEnabled(true);
  EXPECT_TRUE(std::holds_alternative<PurchaseResult::UserCancelled>(
      Product::products({kSeasonPass}).at(0).purchase().value));
  const auto interrupted = store_->allTransactions().back();
  EXPECT_TRUE(interrupted.hasPurchaseIssue);
  expectLists({outside.id()}, {outside.id()}, {outside.id()});
  store_->resolveIssueForTransaction(interrupted.identifier);
  const auto resolved = take(updates, 1);
  ASSERT_EQ(resolved.size(), 1u);
  EXPECT_EQ(payloadOf(resolved[0]).productID(), kSeasonPass);
  const IDs both{outside.id(), interrupted.identifier};
  expectLists(both, both, both);
}

TEST_F(StoreTest, OfferCodesAndPurchaseOptionErrors) {
  auto updates = Transaction::updates();
  const auto code = store_->redeemOfferCode(kPro, "Spring Code");
  EXPECT_EQ(take(updates, 1).size(), 1u);
  EXPECT_EQ(code.offerType(), Transaction::OfferType::code());
  EXPECT_EQ(code.offerPaymentModeStringRepresentation(), "PAY_AS_YOU_GO");
  EXPECT_EQ(code.price(), dec("0.99"));
  EXPECT_EQ(code.backingString("offerPeriod"), "P2M");

  const auto basic = Product::products({kBasic}).at(0);
  auto purchaseError = [&](std::vector<PurchaseOption> options) {
    try {
      basic.purchase(options);
    } catch (const PurchaseError& error) {
      return error.code();
    }
    return static_cast<Code>(-1);
  };
  EXPECT_EQ(purchaseError({PurchaseOption::quantity(11)}), Code::invalidQuantity);
  EXPECT_EQ(purchaseError({PurchaseOption::quantity(0)}), Code::invalidQuantity);
  EXPECT_EQ(purchaseError({PurchaseOption::promotionalOffer("nope", "K", platform::UUID::random(), "AA==", 1)}),
            Code::invalidOfferIdentifier);
  EXPECT_EQ(purchaseError({PurchaseOption::promotionalOffer("x", "", platform::UUID::random(), "AA==", 1)}),
            Code::missingOfferParameters);
  Product unknown = basic;
  unknown.id = "com.vorntesk.sample.nothing";
  EXPECT_THROW(unknown.purchase(), PurchaseError);
  EXPECT_THROW(store_->redeemOfferCode(kPro, "Autumn Code"), PurchaseError);
  // None of the refused purchases left a trace.
  EXPECT_EQ(ids(Transaction::all()), std::vector<std::uint64_t>{code.id()});
}

TEST_F(StoreTest, RefundRevokesReSignsAndRemovesTheEntitlement) {
  auto updates = Transaction::updates();
  const auto adsID = buy(kRemoveAds);
  const auto proID = buy(kPro);
  store_->refundTransaction(adsID, Transaction::RevocationReason::developerIssue());
  store_->refundTransaction(proID);
  const auto refunds = take(updates, 2);
  ASSERT_EQ(refunds.size(), 2u);
  EXPECT_TRUE(refunds[0].isVerified());
  const auto refunded = payloadOf(refunds[0]);
  EXPECT_EQ(refunded.id(), adsID);
  EXPECT_TRUE(refunded.revocationDate());
  EXPECT_EQ(refunded.revocationReason(), Transaction::RevocationReason::developerIssue());
  EXPECT_EQ(payloadOf(refunds[1]).revocationReason(), Transaction::RevocationReason::other());
  expectLists({adsID, proID}, {adsID, proID}, {});
  auto all = Transaction::all();
  EXPECT_TRUE(all.next()->unsafePayloadValue().revocationDate());
  // A refunded subscription does not renew.
  store_->advanceTime(10.0 * 24 * 3600);
  EXPECT_TRUE(take(updates, 1, kNothing).empty());
  EXPECT_THROW(store_->refundTransaction(adsID), std::invalid_argument);
  // Buying again after a refund is a new purchase.
  EXPECT_NE(buy(kRemoveAds), adsID);
}

TEST_F(StoreTest, ExpireForceRenewAndClear) {
  auto updates = Transaction::updates();
  const auto proID = buy(kPro);
  store_->forceRenewalOfSubscription(kPro);
  const auto forced = take(updates, 1);
  ASSERT_EQ(forced.size(), 1u);
  const auto renewal = payloadOf(forced[0]);
  EXPECT_EQ(renewal.reason(), Transaction::Reason::renewal());
  EXPECT_EQ(renewal.originalID(), proID);
  expectLists({proID, renewal.id()}, {proID, renewal.id()}, {renewal.id()});

  store_->expireSubscription(kPro);
  EXPECT_LE(*store_->allTransactions().back().transaction->expirationDate(), store_->now());
  store_->advanceTime(60.0 * 24 * 3600);
  EXPECT_TRUE(take(updates, 1, kNothing).empty());  // expiry is not a transaction
  expectLists({proID, renewal.id()}, {proID, renewal.id()}, {});
  EXPECT_THROW(store_->expireSubscription(kPro), std::invalid_argument);

  buy(kSeasonPass);
  buy(kCoins);
  store_->clearTransactions();
  EXPECT_TRUE(store_->allTransactions().empty());
  expectLists({}, {}, {});
  EXPECT_TRUE(take(updates, 1, kNothing).empty());
  // After clearing, the group's introductory offer is available again.
  buy(kPro);
  EXPECT_TRUE(store_->allTransactions().back().transaction->offer());
}

TEST_F(StoreTest, SimulatedErrorsAndVerificationFailures) {
  store_->setSimulatedError(StoreKitAPI::loadProducts, StoreKitError::notEntitled());
  EXPECT_THROW(Product::products({kCoins}), StoreKitError);
  store_->setSimulatedError(StoreKitAPI::loadProducts, std::nullopt);
  const auto coins = Product::products({kCoins}).at(0);

  store_->setSimulatedError(StoreKitAPI::purchase, PurchaseError(Code::purchaseNotAllowed));
  EXPECT_THROW(coins.purchase(), PurchaseError);
  store_->setSimulatedError(StoreKitAPI::purchase, StoreKitError::userCancelled());
  EXPECT_THROW(coins.purchase(), StoreKitError);
  store_->setSimulatedError(StoreKitAPI::purchase, std::nullopt);
  expectLists({}, {}, {});

  store_->setSimulatedError(StoreKitAPI::appStoreSync,
                            StoreKitError::networkError(URLError(URLError::kTimedOut, "")));
  try {
    AppStore::sync();
    ADD_FAILURE() << "sync did not throw";
  } catch (const StoreKitError& error) {
    EXPECT_EQ(error.code(), StoreKitError::Code::networkError);
    EXPECT_EQ(error.urlError()->localizedDescription(), "");
  }
  store_->setSimulatedError(StoreKitAPI::appStoreSync, std::nullopt);
  EXPECT_NO_THROW(AppStore::sync());
  EXPECT_THROW(store_->setSimulatedError(StoreKitAPI::verification, StoreKitError::unknown()),
               std::invalid_argument);
  EXPECT_THROW(store_->setSimulatedError(StoreKitAPI::loadProducts, PurchaseError(Code::invalidQuantity)),
               std::invalid_argument);

  const auto first = buy(kCoins);
  const auto second = buy(kRemoveAds);
  store_->setVerificationFailure(first, VerificationError(VerificationError::Code::revokedCertificate));
  auto all = Transaction::all();
  auto a = all.next(), b = all.next();
  EXPECT_EQ(a->verificationError()->code(), VerificationError::Code::revokedCertificate);
  EXPECT_EQ(a->unsafePayloadValue().id(), first);
  EXPECT_THROW(a->payloadValue(), VerificationError);
  EXPECT_TRUE(b->isVerified());
  store_->setVerificationFailure(first, std::nullopt);

  store_->setSimulatedError(StoreKitAPI::verification, VerificationError(VerificationError::Code::invalidEncoding));
  for (auto* sequence : {&Transaction::unfinished, &Transaction::currentEntitlements}) {
    auto results = sequence();
    int count = 0;
    while (auto element = results.next()) {
      ++count;
      ASSERT_FALSE(element->isVerified());
      EXPECT_EQ(element->verificationError()->code(), VerificationError::Code::invalidEncoding);
    }
    EXPECT_GE(count, 1);
  }
  store_->setSimulatedError(StoreKitAPI::verification, std::nullopt);

  // A token altered after signing comes out unverified with an invalid signature, in every list.
  auto jws = store_->allTransactions()[1].jwsRepresentation;
  auto payload = *decodeJWSPayload(jws);
  payload.replace(payload.find("\"quantity\":1"), 12, "\"quantity\":9");
  const auto dot = jws.find('.');
  const auto tampered = jws.substr(0, dot + 1) + platform::base64URLEncode(payload) + jws.substr(jws.rfind('.'));
  store_->replaceSignedTransaction(second, tampered);
  auto entitlements = Transaction::currentEntitlements();
  const auto element = entitlements.next();
  EXPECT_EQ(element->verificationError()->code(), VerificationError::Code::invalidSignature);
  EXPECT_EQ(element->unsafePayloadValue().purchasedQuantity(), 9);
  EXPECT_EQ(element->jwsRepresentation(), tampered);
}

TEST_F(StoreTest, StorefrontLocaleAndPurchaseResultControls) {
  store_->setStorefront("DEU");
  store_->setLocale("de_DE");
  const auto coins = Product::products({kCoins}).at(0);
  EXPECT_EQ(coins.displayName, "100 M\xC3\xBCnzen");
  EXPECT_EQ(coins.displayPrice, "0,99\xC2\xA0\xE2\x82\xAC");
  buy(kCoins);
  const auto t = store_->allTransactions().back().transaction.value();
  EXPECT_EQ(t.storefront(), (Storefront{"DEU", "143443", "EUR"}));
  EXPECT_EQ(t.currency(), "EUR");
  EXPECT_THROW(store_->setStorefront("ATLANTIS"), std::invalid_argument);

  store_->setStorefrontAvailable(false);
  EXPECT_FALSE(Storefront::current());
  store_->setStorefrontAvailable(true);
  EXPECT_EQ(Storefront::current()->countryCode, "DEU");

  store_->setNextPurchaseResult(LocalStore::NextPurchaseResult::unrecognized);
  EXPECT_TRUE(std::holds_alternative<PurchaseResult::Other>(coins.purchase().value));
  store_->setNextPurchaseResult(LocalStore::NextPurchaseResult::userCancelled);
  EXPECT_TRUE(std::holds_alternative<PurchaseResult::UserCancelled>(coins.purchase().value));
  EXPECT_TRUE(std::holds_alternative<PurchaseResult::Success>(coins.purchase().value));
  EXPECT_EQ(ids(Transaction::all()).size(), 2u);

  // Identifiers as given: unknown ones left out, repeated ones repeated, store order kept.
  const auto products = Product::products({kPro, "nope", kCoins, kPro});
  std::vector<std::string> got;
  for (const auto& p : products) got.push_back(p.id);
  EXPECT_EQ(got, (std::vector<std::string>{kCoins, kPro, kPro}));

  store_->resetToDefaultState();
  EXPECT_EQ(store_->storefront(), "USA");
  EXPECT_TRUE(store_->allTransactions().empty());
}

TEST_F(StoreTest, UpdatesReplayUnfinishedOnceBroadcastAndEndOnCancellation) {
  const auto early = buy(kCoins);
  buy(kRemoveAds);
  Transaction::all().next()->unsafePayloadValue().finish();
  auto first = Transaction::updates();
  auto second = Transaction::updates();
  // Only the first listener hears about what was left unfinished.
  const auto replay = take(first, 2, kNothing * 2);
  ASSERT_EQ(replay.size(), 1u);
  EXPECT_NE(payloadOf(replay[0]).id(), early);
  EXPECT_TRUE(take(second, 1, kNothing).empty());

  const auto outside = store_->buyProduct(kSeasonPass);
  EXPECT_EQ(idsOf(take(first, 1)), std::vector<std::uint64_t>{outside.id()});
  EXPECT_EQ(idsOf(take(second, 1)), std::vector<std::uint64_t>{outside.id()});

  // A waiting next() returns nothing promptly once its task is cancelled.
  std::atomic<bool> ended{false};
  auto task = platform::Task::run([&] {
    auto updates = Transaction::updates();
    EXPECT_FALSE(updates.next());
    ended = true;
  });
  std::this_thread::sleep_for(50ms);
  const auto cancelledAt = std::chrono::steady_clock::now();
  task.cancel();
  while (!ended && std::chrono::steady_clock::now() - cancelledAt < 2s) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(ended);
  EXPECT_LT(std::chrono::steady_clock::now() - cancelledAt, 500ms);
}

TEST_F(StoreTest, ACancelledReaderHandsOutWhatItHoldsButTakesNothingNew) {
  (void)Transaction::updates();  // takes the first listener's replay of unfinished ones
  std::binary_semaphore subscribed(0), cancelled(0), readOnce(0), pushedLater(0), done(0);
  std::vector<std::uint64_t> got;
  auto task = platform::Task::run([&] {
    auto updates = Transaction::updates();
    subscribed.release();
    cancelled.acquire();
    // The first read after the cancellation: from here on the reader takes nothing new.
    if (auto update = updates.next()) got.push_back(update->unsafePayloadValue().id());
    readOnce.release();
    pushedLater.acquire();
    while (auto update = updates.next()) got.push_back(update->unsafePayloadValue().id());
    done.release();
  });
  ASSERT_TRUE(subscribed.try_acquire_for(60s));
  const auto before = store_->buyProduct(kCoins).id();
  task.cancel();
  const auto unnoticed = store_->buyProduct(kCoins).id();  // the reader has not looked yet
  cancelled.release();
  ASSERT_TRUE(readOnce.try_acquire_for(60s));
  store_->buyProduct(kCoins);
  pushedLater.release();
  ASSERT_TRUE(done.try_acquire_for(60s));
  EXPECT_EQ(got, (std::vector<std::uint64_t>{before, unnoticed}));
}

TEST_F(StoreTest, TimeRateRenewsOnItsOwnAndConcurrentCallersGetDistinctIDs) {
  store_->setTimeRate(time_rate::kOneRenewalEveryTwoSeconds);
  auto updates = Transaction::updates();
  const auto trial = buy(kPro);
  const auto t = store_->allTransactions().at(0).transaction.value();
  EXPECT_EQ(*t.expirationDate() - t.purchaseDate(), 2s);

  std::vector<std::thread> buyers;
  std::mutex mutex;
  std::set<std::uint64_t> bought;
  for (int i = 0; i < 4; ++i) {
    buyers.emplace_back([&] {
      for (int j = 0; j < 5; ++j) {
        const auto id = buy(kCoins);
        std::lock_guard lock(mutex);
        bought.insert(id);
      }
    });
  }
  for (auto& thread : buyers) thread.join();
  EXPECT_EQ(bought.size(), 20u);

  // The renewal thread renews without anyone advancing the clock.
  const auto renewed = take(updates, 1, 5s);
  ASSERT_EQ(renewed.size(), 1u);
  EXPECT_EQ(payloadOf(renewed[0]).originalID(), trial);
  EXPECT_EQ(payloadOf(renewed[0]).purchaseDate(), *t.expirationDate());
}

TEST_F(StoreTest, InsertedPayloadsJoinTheHistorySignedByTheStore) {
  auto payload = json::parse(R"({"transactionId":"900","originalTransactionId":"900","bundleId":"b",
      "productId":"com.example.legacy","purchaseDate":1600000000000,"originalPurchaseDate":1600000000000,
      "signedDate":1600000000000,"type":"Non-Consumable","environment":"Production",
      "quantity":3000000000})").as_object();
  const auto inserted = store_->insertTransaction(payload);
  EXPECT_EQ(ids(Transaction::all()), std::vector<std::uint64_t>{900});
  EXPECT_EQ(ids(Transaction::unfinished()), std::vector<std::uint64_t>{900});
  auto entitlements = Transaction::currentEntitlements();
  const auto element = entitlements.next();
  ASSERT_TRUE(element && element->isVerified());
  EXPECT_EQ(element->unsafePayloadValue().purchasedQuantity(), 3000000000);
  EXPECT_GT(buy(kCoins), 900u);  // later ids stay increasing
  const auto sandbox = store_->signedTransaction(900, Environment::sandbox());
  const auto checked = store_->verifyTransaction(sandbox);
  EXPECT_TRUE(checked.isVerified());
  EXPECT_EQ(checked.unsafePayloadValue().environment(), Environment::sandbox());
  EXPECT_THROW(store_->verifyTransaction("not a token"), VerificationError);
  EXPECT_THROW(store_->insertTransaction(json::object{{"transactionId", "1"}}), VerificationError);
}

TEST(SharedStore, LoadsTheConfigurationNamedByTheEnvironmentOnFirstUse) {
  const auto previous = LocalStore::setShared(nullptr);
  ::setenv("VORNTESK_STOREKIT_CONFIG", sampleFile().c_str(), 1);
  EXPECT_EQ(Product::products({kCoins, kPro}).size(), 2u);
  const auto loaded = LocalStore::shared();
  EXPECT_EQ(LocalStore::shared(), loaded);  // one per process
  LocalStore::setShared(nullptr);
  // A file that cannot be used is reported and leaves an empty store.
  ::setenv("VORNTESK_STOREKIT_CONFIG", dataFile("missing.storekit").c_str(), 1);
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(Product::products({kCoins}).empty());
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("missing.storekit"), std::string::npos);
  ::unsetenv("VORNTESK_STOREKIT_CONFIG");
  LocalStore::setShared(previous);
}

}  // namespace
}  // namespace storekit::testing
