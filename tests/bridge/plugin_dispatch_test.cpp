// The plug-in seen from the host: every result case of every method answered with its exact
// envelope, once, on the plug-in's queue, in order; unknown methods, undecodable payloads,
// the synchronous entry and cancellation.
#include "bridge/apple_store_kit_service_plugin.h"
#include "host/tesk_bridge_dispatcher.h"
#include "support/completion_log.h"
#include "support/scripted_adapter.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include <latch>
#include <thread>

namespace {

using namespace VornTeskPaymentsAddonApple;
using testsupport::CompletionLog;
using testsupport::ScriptedAdapter;
using vorn::tesk::VornError;
using vorn::tesk::VornErrorCode;

struct Fixture {
  std::shared_ptr<ScriptedAdapter> adapter = std::make_shared<ScriptedAdapter>();
  std::shared_ptr<platform::SerialQueue> queue =
      std::make_shared<platform::SerialQueue>("test.plugin");
  std::shared_ptr<AppleStoreKitServicePlugin> plugin =
      std::make_shared<AppleStoreKitServicePlugin>(adapter, queue);
  CompletionLog log;
};

AppleProduct sampleProduct() {
  AppleProduct product;
  product.id = "pro.monthly";
  product.displayName = "Pro";
  product.description = "All features";
  product.displayPrice = "$0.99";
  product.price = *platform::Decimal::parse("0.99");
  product.priceLocale = "en_US";
  product.productType = AppleProductType::autoRenewable;
  product.subscription = SubscriptionInfo{"21482456", Period{1, ApplePeriodUnit::month}, {}, {}};
  product.isFamilyShareable = true;
  return product;
}

VornError fullError() {
  return VornError{VornErrorCode::unavailable, "A network error occurred: offline",
                   "NETWORK_ERROR", "trace-1", std::map<std::string, std::string>{{"k", "v"}},
                   "about:blank", "/calls/1"};
}

struct Row {
  std::string method;
  std::string payload;
  std::function<void(ScriptedAdapter&)> script;
  std::string expected;
};

TEST(PluginDispatch, EveryCaseOfEveryResultIsAnsweredExactlyOnceInOrderOnTheQueue) {
  const std::string unknownEnvelope = R"({"outcome":{"code":"later","data":{"a":[1,2]}}})";
  const std::string failure =
      R"({"error":{"code":"UNAVAILABLE","message":"A network error occurred: offline",)"
      R"("externalCode":"NETWORK_ERROR","traceId":"trace-1","details":{"k":"v"},)"
      R"("type":"about:blank","instance":"/calls/1"}})";
  const Unknown unknown{"later", R"({"a":[1,2]})"};
  const std::vector<Row> rows = {
      {"GetProducts", R"({"productIds":["pro.monthly"]})",
       [](auto& a) { a.onGetProducts = [](const auto&) { return GetProductsResponse{{sampleProduct()}}; }; },
       R"({"success":{"products":[{"id":"pro.monthly","displayName":"Pro","description":"All features",)"
       R"("displayPrice":"$0.99","price":"0.99","priceLocale":"en_US","productType":3,)"
       R"("subscription":{"subscriptionGroupId":"21482456","subscriptionPeriod":{"value":1,"unit":3},)"
       R"("promotionalOffers":[]},"isFamilyShareable":true}]}})"},
      {"GetProducts", R"({"productIds":["x"]})",
       [&](auto& a) { a.onGetProducts = [&](const auto&) { return unknown; }; }, unknownEnvelope},
      {"GetProducts", R"({"productIds":["x"]})",
       [](auto& a) { a.onGetProducts = [](const auto&) { return fullError(); }; }, failure},
      {"Purchase", R"({"productId":"a"})",
       [](auto& a) { a.onPurchase = [](const auto&) { return PurchaseResponse{}; }; },
       R"({"success":{"transaction":{"id":0,"originalId":0,"productId":"","productType":0,)"
       R"("purchaseDate":"1970-01-01T00:00:00.000Z","originalPurchaseDate":"1970-01-01T00:00:00.000Z",)"
       R"("revocationReason":0,"quantity":0,"transactionReason":0,"signedDate":"1970-01-01T00:00:00.000Z",)"
       R"("environment":0,"ownershipType":0,"jwsRepresentation":"","verificationStatus":0,)"
       R"("verificationError":0,"bundleId":"","isUpgraded":false,"offerType":0,)"
       R"("storefrontCountryCode":"","deviceVerification":"","deviceVerificationNonce":""}}})"},
      {"Purchase", R"({"productId":"a"})",
       [&](auto& a) { a.onPurchase = [&](const auto&) { return unknown; }; }, unknownEnvelope},
      {"Purchase", R"({"productId":"a"})",
       [](auto& a) { a.onPurchase = [](const auto&) { return fullError(); }; }, failure},
      {"Purchase", R"({"productId":"a"})",
       [](auto& a) { a.onPurchase = [](const auto&) { return UserCanceled{}; }; },
       R"({"outcome":{"code":"user_canceled","data":{}}})"},
      {"Purchase", R"({"productId":"a"})",
       [](auto& a) { a.onPurchase = [](const auto&) { return Pending{}; }; },
       R"({"outcome":{"code":"pending","data":{}}})"},
      {"StartTransactionObserver", "{}",
       [](auto& a) { a.onStart = [] { return StartTransactionObserverResponse{}; }; },
       R"({"success":{}})"},
      {"StartTransactionObserver", "{}",
       [&](auto& a) { a.onStart = [&] { return unknown; }; }, unknownEnvelope},
      {"StartTransactionObserver", "{}", [](auto& a) { a.onStart = [] { return fullError(); }; },
       failure},
      {"StartTransactionObserver", "{}",
       [](auto& a) { a.onStart = [] { return AlreadyStarted{}; }; },
       R"({"outcome":{"code":"already_started","data":{}}})"},
      {"StopTransactionObserver", "{}", [](auto&) {}, R"({"success":{}})"},
      {"StopTransactionObserver", "{}", [&](auto& a) { a.onStop = [&] { return unknown; }; },
       unknownEnvelope},
      {"StopTransactionObserver", "{}", [](auto& a) { a.onStop = [] { return fullError(); }; },
       failure},
      {"GetCurrentEntitlements", "{}", [](auto&) {}, R"({"success":{"transactions":[]}})"},
      {"GetCurrentEntitlements", "{}",
       [&](auto& a) { a.onEntitlements = [&] { return unknown; }; }, unknownEnvelope},
      {"GetCurrentEntitlements", "{}",
       [](auto& a) { a.onEntitlements = [] { return fullError(); }; }, failure},
      {"GetAllTransactions", "{}", [](auto&) {}, R"({"success":{"transactions":[]}})"},
      {"GetAllTransactions", "{}", [&](auto& a) { a.onAll = [&] { return unknown; }; },
       unknownEnvelope},
      {"GetAllTransactions", "{}", [](auto& a) { a.onAll = [] { return fullError(); }; }, failure},
      {"GetUnfinishedTransactions", "{}", [](auto&) {}, R"({"success":{"transactions":[]}})"},
      {"GetUnfinishedTransactions", "{}",
       [&](auto& a) { a.onUnfinished = [&] { return unknown; }; }, unknownEnvelope},
      {"GetUnfinishedTransactions", "{}",
       [](auto& a) { a.onUnfinished = [] { return fullError(); }; }, failure},
      {"FinishTransaction", R"({"transactionId":18446744073709551615})", [](auto&) {},
       R"({"success":{}})"},
      {"FinishTransaction", R"({"transactionId":1})",
       [&](auto& a) { a.onFinish = [&](const auto&) { return unknown; }; }, unknownEnvelope},
      {"FinishTransaction", R"({"transactionId":1})",
       [](auto& a) { a.onFinish = [](const auto&) { return fullError(); }; }, failure},
      {"FinishTransaction", R"({"transactionId":1})",
       [](auto& a) { a.onFinish = [](const auto&) { return TransactionNotFound{}; }; },
       R"({"outcome":{"code":"transaction_not_found","data":{}}})"},
      {"Sync", "{}", [](auto&) {}, R"({"success":{}})"},
      {"Sync", "{}", [&](auto& a) { a.onSync = [&] { return unknown; }; }, unknownEnvelope},
      {"Sync", "{}", [](auto& a) { a.onSync = [] { return fullError(); }; }, failure},
      {"Sync", "{}", [](auto& a) { a.onSync = [] { return UserCanceled{}; }; },
       R"({"outcome":{"code":"user_canceled","data":{}}})"},
      {"GetStorefront", "{}", [](auto&) {},
       R"({"success":{"countryCode":"USA","identifier":"143441"}})"},
      {"GetStorefront", "{}", [&](auto& a) { a.onStorefront = [&] { return unknown; }; },
       unknownEnvelope},
      {"GetStorefront", "{}", [](auto& a) { a.onStorefront = [] { return fullError(); }; },
       failure},
  };

  // Each row's script runs on the queue just before its own call, so the adapter answers
  // each call as its row says even though all calls are queued up front.
  Fixture f;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    f.queue->async([&, i] { rows[i].script(*f.adapter); });
    f.plugin->callAsync(rows[i].method, rows[i].payload,
                        f.log.handler(static_cast<int>(i), f.queue.get()));
  }
  const auto answers = f.log.waitFor(rows.size());
  ASSERT_EQ(answers.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].method + " row " + std::to_string(i));
    EXPECT_EQ(answers[i].callIndex, static_cast<int>(i));
    EXPECT_EQ(answers[i].envelope, rows[i].expected);
    EXPECT_TRUE(answers[i].onQueue);
  }
  EXPECT_EQ(f.adapter->operationCalls.load(), static_cast<int>(rows.size()));
}

TEST(PluginDispatch, UnknownMethodsAreUnimplementedAndNeverLookAtThePayload) {
  Fixture f;
  const std::vector<std::string> methods = {"getProducts", "GetProducts ", "", "Restore",
                                            "purchase\n"};
  for (std::size_t i = 0; i < methods.size(); ++i) {
    f.plugin->callAsync(methods[i], "not json at all", f.log.handler(static_cast<int>(i)));
  }
  const auto answers = f.log.waitFor(methods.size());
  for (std::size_t i = 0; i < methods.size(); ++i) {
    const auto parsed = boost::json::parse(answers[i].envelope).as_object();
    EXPECT_EQ(parsed.at("error").at("code").as_string(), "UNIMPLEMENTED");
    EXPECT_EQ(parsed.at("error").at("message").as_string(), "Unknown ASYNC method: " + methods[i]);
  }
  EXPECT_EQ(f.adapter->operationCalls.load(), 0);
}

TEST(PluginDispatch, UndecodablePayloadsAnswerInternalWithTheDecoderDescription) {
  Fixture f;
  struct Case {
    std::string method;
    std::string payload;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"GetProducts", "", ""},
      {"GetProducts", "null", R"(valueNotFound: expected an object but found null)"},
      {"GetProducts", "[]", R"(typeMismatch: expected an object but found an array)"},
      {"GetProducts", R"({"productIds":[1]})",
       R"(typeMismatch at productIds[0]: expected a string but found the number 1)"},
      {"Purchase", R"({"options":{}})", R"(keyNotFound: "productId")"},
      {"Purchase", R"({"productId":"a","options":{"quantity":"2"}})",
       R"(typeMismatch at options.quantity: expected a 32-bit integer but found a string)"},
      {"FinishTransaction", R"({"transactionId":-1})",
       R"(typeMismatch at transactionId: expected an unsigned 64-bit integer but found the number -1)"},
      {"Sync", "", ""},
      {"GetStorefront", "{", ""},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    f.plugin->callAsync(cases[i].method, cases[i].payload, f.log.handler(static_cast<int>(i)));
  }
  const auto answers = f.log.waitFor(cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].method + " " + cases[i].payload);
    const auto parsed = boost::json::parse(answers[i].envelope).as_object();
    EXPECT_EQ(parsed.at("error").at("code").as_string(), "INTERNAL");
    const std::string message(parsed.at("error").at("message").as_string());
    if (cases[i].message.empty()) {
      EXPECT_EQ(message.rfind("dataCorrupted: the data is not valid JSON", 0), 0U) << message;
    } else {
      EXPECT_EQ(message, cases[i].message);
    }
  }
  EXPECT_EQ(f.adapter->operationCalls.load(), 0);
}

TEST(PluginDispatch, FieldlessRequestsAcceptAnyJSONDocument) {
  Fixture f;
  const std::vector<std::string> payloads = {"{}", R"({"anything":true})", "[]", "3", "null",
                                             R"("text")"};
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    f.plugin->callAsync("Sync", payloads[i], f.log.handler(static_cast<int>(i)));
  }
  for (const auto& answer : f.log.waitFor(payloads.size())) {
    EXPECT_EQ(answer.envelope, R"({"success":{}})");
  }
  EXPECT_EQ(f.adapter->operationCalls.load(), static_cast<int>(payloads.size()));
}

TEST(PluginDispatch, ASuccessThatCannotBeEncodedAnswersInternalNamingThePath) {
  Fixture f;
  f.adapter->onGetProducts = [](const auto&) {
    AppleProduct product = sampleProduct();
    product.displayName = "bad \xC3\x28 text";
    return GetProductsResponse{{sampleProduct(), product}};
  };
  f.plugin->callAsync("GetProducts", R"({"productIds":["a"]})", f.log.handler(0));
  const auto parsed = boost::json::parse(f.log.waitFor(1)[0].envelope).as_object();
  EXPECT_EQ(parsed.at("error").at("code").as_string(), "INTERNAL");
  const std::string message(parsed.at("error").at("message").as_string());
  EXPECT_NE(message.find("products[1].displayName"), std::string::npos) << message;
}

TEST(PluginDispatch, CallSyncAnswersItsFixedErrorForAnyInput) {
  Fixture f;
  for (const std::string method : {"", "GetProducts", "Purchase", "Anything"}) {
    for (const std::string payload : {"", "{}", "not json"}) {
      const auto parsed = boost::json::parse(f.plugin->callSync(method, payload)).as_object();
      ASSERT_EQ(parsed.size(), 1U);
      const auto& error = parsed.at("error").as_object();
      EXPECT_EQ(error.size(), 2U);
      EXPECT_EQ(error.at("code").as_string(), "INTERNAL");
      EXPECT_EQ(error.at("message").as_string(), "Plugin AppleStoreKitService has no SYNC methods");
    }
  }
  EXPECT_EQ(f.adapter->operationCalls.load(), 0);
}

TEST(PluginDispatch, CancelReachesTheAdapterAtOnceWhileACallIsRunning) {
  Fixture f;
  std::latch started(1);
  std::latch release(1);
  f.adapter->onSync = [&] {
    started.count_down();
    release.wait();
    return SyncResponse{};
  };
  f.plugin->callAsync("Sync", "{}", f.log.handler(0));
  f.plugin->callAsync("GetStorefront", "{}", f.log.handler(1));
  started.wait();
  // The queue is blocked in Sync: cancellation must not wait behind it.
  for (const std::int64_t id : {std::int64_t{0}, std::int64_t{-7}, INT64_MAX, INT64_MIN}) {
    f.plugin->cancel(id);
  }
  EXPECT_EQ(f.adapter->cancelledIds(),
            (std::vector<std::int64_t>{0, -7, INT64_MAX, INT64_MIN}));
  release.count_down();
  const auto answers = f.log.waitFor(2);
  EXPECT_EQ(answers[0].callIndex, 0);
  EXPECT_EQ(answers[1].callIndex, 1);
}

TEST(PluginDispatch, CallsFromManyThreadsAreEachAnsweredOnceAndKeepPerThreadOrder) {
  Fixture f;
  constexpr int kThreads = 4;
  constexpr int kCallsPerThread = 500;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  f.adapter->onFinish = [&](const FinishTransactionRequest&) {
    if (running.fetch_add(1) != 0) overlapped = true;
    running.fetch_sub(1);
    return FinishTransactionResponse{};
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCallsPerThread; ++i) {
        f.plugin->callAsync("FinishTransaction", R"({"transactionId":1})",
                            f.log.handler(t * kCallsPerThread + i));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const auto answers = f.log.waitFor(kThreads * kCallsPerThread);
  ASSERT_EQ(answers.size(), static_cast<std::size_t>(kThreads * kCallsPerThread));
  std::vector<int> lastSeen(kThreads, -1);
  for (const auto& answer : answers) {
    const int thread = answer.callIndex / kCallsPerThread;
    const int index = answer.callIndex % kCallsPerThread;
    EXPECT_EQ(index, lastSeen[static_cast<std::size_t>(thread)] + 1);
    lastSeen[static_cast<std::size_t>(thread)] = index;
    EXPECT_EQ(answer.envelope, R"({"success":{}})");
  }
  EXPECT_FALSE(overlapped.load());
}

TEST(PluginRegistration, RegistersUnderItsNameOnANewQueueEachTime) {
  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  dispatcher.removeAllPlugins();
  EXPECT_EQ(AppleStoreKitServicePlugin::pluginName, "AppleStoreKitService");

  AppleStoreKitServicePlugin::registerPlugin();
  EXPECT_EQ(dispatcher.plugin("AppleStoreKitService"), nullptr);

  auto adapter = std::make_shared<ScriptedAdapter>();
  AppleStoreKitServicePlugin::registerPlugin(adapter);
  auto first = std::dynamic_pointer_cast<AppleStoreKitServicePlugin>(
      dispatcher.plugin("AppleStoreKitService"));
  ASSERT_NE(first, nullptr);
  AppleStoreKitServicePlugin::registerPlugin(adapter);
  auto second = std::dynamic_pointer_cast<AppleStoreKitServicePlugin>(
      dispatcher.plugin("AppleStoreKitService"));
  ASSERT_NE(second, nullptr);

  EXPECT_NE(first, second);
  EXPECT_NE(first->queue(), second->queue());
  for (const auto& plugin : {first, second}) {
    EXPECT_EQ(plugin->adapter(), adapter);
    EXPECT_EQ(plugin->queue()->label(), "com.qubrixplatform.vorntesk.apple_store_kit_service.plugin");
    EXPECT_EQ(plugin->queue()->qualityOfService(), platform::QualityOfService::userInitiated);
  }

  // The replaced plug-in still answers what it was given.
  CompletionLog log;
  first->callAsync("GetStorefront", "{}", log.handler(0));
  dispatcher.callAsync("AppleStoreKitService", "Sync", "{}", log.handler(1));
  EXPECT_EQ(log.waitFor(2).size(), 2U);
  dispatcher.removeAllPlugins();
}

TEST(PluginDeathTest, ConstructionWithoutAdapterOrQueueEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(AppleStoreKitServicePlugin(nullptr, std::make_shared<platform::SerialQueue>("q")),
               "needs an adapter and a queue");
}

}  // namespace
