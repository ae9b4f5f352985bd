// The plug-in seen from the host: every answer's exact envelope, once, on its queue, in order.
#include "bridge/apple_store_kit_service_plugin.h"
#include "bridge/envelope.h"
#include "records/record_samples.h"
#include "support/scripted_adapter.h"

#include <gtest/gtest.h>

#include <future>
#include <latch>

namespace {

using namespace VornTeskPaymentsAddonApple;
using testsupport::ScriptedAdapter;

struct Fixture {
  std::shared_ptr<ScriptedAdapter> adapter = std::make_shared<ScriptedAdapter>();
  std::shared_ptr<platform::SerialQueue> queue =
      std::make_shared<platform::SerialQueue>("test.plugin");
  std::shared_ptr<AppleStoreKitServicePlugin> plugin =
      std::make_shared<AppleStoreKitServicePlugin>(adapter, queue);
  std::vector<std::string> answers;  // in arrival order, each marked if it came off the queue

  vorn::tesk::CompletionHandler answer() {
    return [this](std::string envelope) {
      answers.push_back(queue->isCurrent() ? envelope : "<off the queue> " + envelope);
    };
  }
  // Once this returns, everything queued before (the completions included) has run.
  std::vector<std::string> drain() {
    std::promise<void> drained;
    queue->async([&] { drained.set_value(); });
    EXPECT_EQ(drained.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    return answers;
  }
};

using Script = std::function<void(ScriptedAdapter&)>;

template <class Result, class Request>
Script answer(std::function<Result(const Request&)> ScriptedAdapter::*hook,
              std::type_identity_t<Result> result) {
  return [=](ScriptedAdapter& a) { a.*hook = [result](const Request&) { return result; }; };
}

TEST(PluginDispatch, EveryAnswerComesExactlyOnceInOrderOnTheQueueAndBadCallsNeverReachTheAdapter) {
  using A = ScriptedAdapter;
  struct Row {
    std::string method, payload;
    Script script;
    std::string expected;
  };
  std::vector<Row> rows;
  // clang-format off
  const vorn::tesk::VornError error{vorn::tesk::VornErrorCode::unavailable, "offline", "NETWORK",
      "trace-1", std::map<std::string, std::string>{{"k", "v"}}, "about:blank", "/calls/1"};
  // clang-format on
  // Success, unknown and failure of one method; field-less requests read any JSON document.
  auto threeCases = [&](auto hook, const char* method, const char* payload, auto success,
                        const std::string& data) {
    rows.push_back({method, payload, answer(hook, success), R"({"success":)" + data + "}"});
    rows.push_back({method, payload, answer(hook, Unknown{"later", R"( {"a": [1, 2.5e1]} )"}),
                    R"({"outcome":{"code":"later","data":{"a":[1,2.5E1]}}})"});
    rows.push_back({method, payload, answer(hook, error),
                    R"({"error":{"code":"UNAVAILABLE","message":"offline","externalCode":)"
                    R"("NETWORK","traceId":"trace-1","details":{"k":"v"},"type":"about:blank",)"
                    R"("instance":"/calls/1"}})"});
  };
  const AppleTransaction transaction = samples::minimalTransaction();
  const std::string record(samples::kMinimalTransactionJSON),
      list = "{\"transactions\":[" + record + "]}";
  threeCases(&A::onGetProducts, "GetProducts", R"({"productIds":["coins"]})",
             GetProductsResponse{{samples::coinsProduct()}},
             "{\"products\":[" + std::string(samples::kCoinsJSON) + "]}");
  threeCases(&A::onPurchase, "Purchase", R"({"productId":"coins"})", PurchaseResponse{transaction},
             "{\"transaction\":" + record + "}");
  threeCases(&A::onStart, "StartTransactionObserver", "{}", StartTransactionObserverResponse{},
             "{}");
  threeCases(&A::onStop, "StopTransactionObserver", "[]", StopTransactionObserverResponse{}, "{}");
  threeCases(&A::onEntitlements, "GetCurrentEntitlements", "null",
             GetCurrentEntitlementsResponse{{{transaction}}}, list);
  threeCases(&A::onAll, "GetAllTransactions", "3", GetAllTransactionsResponse{},
             R"({"transactions":[]})");
  threeCases(&A::onUnfinished, "GetUnfinishedTransactions", R"("text")",
             GetUnfinishedTransactionsResponse{{{transaction}}}, list);
  threeCases(&A::onFinish, "FinishTransaction", R"({"transactionId":18446744073709551615})",
             FinishTransactionResponse{}, "{}");
  threeCases(&A::onSync, "Sync", R"({"anything":true})", SyncResponse{}, "{}");
  threeCases(&A::onStorefront, "GetStorefront", "{}", GetStorefrontResponse{"FRA", "143442"},
             R"({"countryCode":"FRA","identifier":"143442"})");
  // The operations' own cases, and a success that cannot be written.
  const auto outcome = [](const char* code) {
    return R"({"outcome":{"code":")" + std::string(code) + R"(","data":{}}})";
  };
  AppleProduct bad = samples::coinsProduct();
  bad.displayName = "bad \xC3\x28 text";
  const std::string purchase = R"({"productId":"a"})";
  rows.push_back(
      {"Purchase", purchase, answer(&A::onPurchase, UserCanceled{}), outcome("user_canceled")});
  rows.push_back({"Purchase", purchase, answer(&A::onPurchase, Pending{}), outcome("pending")});
  rows.push_back({"StartTransactionObserver", "{}", answer(&A::onStart, AlreadyStarted{}),
                  outcome("already_started")});
  rows.push_back({"FinishTransaction", R"({"transactionId":1})",
                  answer(&A::onFinish, TransactionNotFound{}), outcome("transaction_not_found")});
  rows.push_back({"Sync", "{}", answer(&A::onSync, UserCanceled{}), outcome("user_canceled")});
  rows.push_back({"GetProducts", R"({"productIds":[]})",
                  answer(&A::onGetProducts, GetProductsResponse{{samples::coinsProduct(), bad}}),
                  R"x({"error":{"code":"INTERNAL","message":"invalidValue at products[1].)x"
                  R"x(displayName: the string is not valid UTF-8 (byte offset 4)"}})x"});
  // Unknown methods never look at the payload; bad payloads answer the decoder's description.
  const Script none = [](ScriptedAdapter&) {};
  const std::string internal = R"({"error":{"code":"INTERNAL","message":")";
  rows.push_back(
      {"getProducts", "x", none,
       R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: getProducts"}})"});
  rows.push_back({"GetProducts", "null", none,
                  internal + R"(valueNotFound: expected an object but found null"}})"});
  rows.push_back({"Purchase", R"({"productId":"a","options":{"quantity":"2"}})", none,
                  internal + R"(typeMismatch at options.quantity: expected a 32-bit integer but )"
                             R"(found a string"}})"});

  // Each row's script runs on the queue just before its own call.
  Fixture f;
  for (const Row& row : rows) {
    f.queue->async([&] { row.script(*f.adapter); });
    f.plugin->callAsync(row.method, row.payload, f.answer());
  }
  const auto answers = f.drain();
  ASSERT_EQ(answers.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(answers[i], rows[i].expected) << rows[i].method << " row " << i;
  }
  EXPECT_EQ(f.adapter->operationCalls.load(), static_cast<int>(rows.size()) - 3);
  EXPECT_EQ(f.plugin->callSync("GetProducts", "{}"),
            internal + R"(Plugin AppleStoreKitService has no SYNC methods"}})");
}

TEST(PluginDispatch, CancelReachesTheAdapterAtOnceWhileACallIsRunning) {
  Fixture f;
  std::vector<std::int64_t> cancelled;
  f.adapter->onCancelHook = [&](std::int64_t id) { cancelled.push_back(id); };
  std::latch started(1), release(1);
  f.adapter->onSync = [&](const SyncRequest&) {
    started.count_down();
    release.wait();
    return SyncResponse{};
  };
  f.plugin->callAsync("Sync", "{}", f.answer());
  f.plugin->callAsync("GetStorefront", "{}", f.answer());
  started.wait();
  // The queue is blocked in Sync: cancellation must not wait behind it.
  const std::vector<std::int64_t> ids{0, -7, INT64_MAX, INT64_MIN};
  for (const std::int64_t id : ids) f.plugin->cancel(id);
  EXPECT_EQ(cancelled, ids);
  release.count_down();
  EXPECT_EQ(f.drain(),
            (std::vector<std::string>{R"({"success":{}})",
                                      R"({"success":{"countryCode":"","identifier":""}})"}));
}

TEST(PluginDeathTest, ConstructionWithoutAdapterOrQueueEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(AppleStoreKitServicePlugin(nullptr, std::make_shared<platform::SerialQueue>("q")),
               "needs an adapter and a queue");
}

TEST(Envelope, UnknownOutcomesCarryAnyJSONDocumentAndErrorsEscapeWhatTheyAreGiven) {
  EXPECT_EQ(unknownOutcomeEnvelope("later", " null\n"),
            R"({"outcome":{"code":"later","data":null}})");
  EXPECT_EQ(unknownOutcomeEnvelope("code", "1 2"),
            errorEnvelope("INTERNAL", "Unknown outcome rawJson was not valid JSON"));
  EXPECT_EQ(errorEnvelope("IN\"TERNAL", "line\nbreak \\ tab\t \x01 \xE2\x82\xAC"),
            R"({"error":{"code":"IN\"TERNAL","message":"line\nbreak \\ tab\t \u0001 €"}})");
  EXPECT_EQ(errorEnvelope("INTERNAL", "bad \xFF byte"),
            R"({"error":{"code":"INTERNAL","message":"<non-utf8>"}})");
  EXPECT_EQ(unknownOutcomeEnvelope("bad \xFF code", "1"), errorEnvelope("INTERNAL", "\xFF"));
}

}  // namespace
