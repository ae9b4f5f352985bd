#include "host/tesk_bridge_dispatcher.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace vorn::tesk {
namespace {

// Answers every call at once with "<tag>:<method>:<payload>".
class EchoPlugin : public TeskPlugin {
 public:
  explicit EchoPlugin(std::string tag) : tag_(std::move(tag)) {}
  std::string callSync(const std::string& method, const std::string& payload) override {
    return tag_ + ":" + method + ":" + payload;
  }
  void callAsync(std::string method, std::string payload, CompletionHandler onComplete) override {
    onComplete(callSync(method, payload));
  }

 private:
  std::string tag_;
};

TEST(TeskBridgeDispatcherTest, KeepsReplacesAndDropsPlugins) {
  EXPECT_EQ(&TeskBridgeDispatcher::shared(), &TeskBridgeDispatcher::shared());

  TeskBridgeDispatcher dispatcher;
  EXPECT_EQ(dispatcher.plugin("Store"), nullptr);
  auto first = std::make_shared<EchoPlugin>("first");
  auto other = std::make_shared<EchoPlugin>("other");
  dispatcher.registerPlugin("Store", first);
  dispatcher.registerPlugin("Other", other);
  EXPECT_EQ(dispatcher.plugin("Store"), first);

  auto second = std::make_shared<EchoPlugin>("second");
  dispatcher.registerPlugin("Store", second);
  EXPECT_EQ(dispatcher.plugin("Store"), second);
  EXPECT_EQ(dispatcher.plugin("Other"), other);
  EXPECT_EQ(first.use_count(), 1) << "the replaced plug-in is still kept";

  dispatcher.removeAllPlugins();
  EXPECT_EQ(dispatcher.plugin("Store"), nullptr);
  EXPECT_EQ(second.use_count(), 1);
}

TEST(TeskBridgeDispatcherTest, RoutesCallsAndAnswersUnknownServicesWithUnimplemented) {
  TeskBridgeDispatcher dispatcher;
  dispatcher.registerPlugin("Store", std::make_shared<EchoPlugin>("store"));
  std::vector<std::string> answers;
  const auto collect = [&answers](std::string envelope) { answers.push_back(std::move(envelope)); };

  dispatcher.callAsync("Store", "GetProducts", R"({"productIds":[]})", collect);
  dispatcher.callAsync("Missing", "GetProducts", "{}", collect);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_EQ(answers[0], R"(store:GetProducts:{"productIds":[]})");
  const boost::json::value envelope = boost::json::parse(answers[1]);
  ASSERT_TRUE(envelope.is_object());
  EXPECT_EQ(envelope.as_object().size(), 1u);
  const boost::json::object& error = envelope.at("error").as_object();
  EXPECT_EQ(error.at("code"), "UNIMPLEMENTED");
  EXPECT_NE(std::string(error.at("message").as_string()).find("Missing"), std::string::npos);
}

TEST(TeskBridgeDispatcherTest, DeliversEveryEventToEveryListenerFromManyThreads) {
  TeskBridgeDispatcher dispatcher;
  constexpr int kListeners = 3;
  constexpr int kThreads = 8;
  constexpr int kEventsPerThread = 400;
  std::atomic<int> counts[kListeners] = {};
  std::atomic<int> corrupted = 0;
  TeskBridgeDispatcher::ListenerToken tokens[kListeners];
  for (int i = 0; i < kListeners; ++i) {
    tokens[i] = dispatcher.addEventListener(
        [&counts, &corrupted, i](const std::string& name, const std::string& payload) {
          if (name != "Store.OnUpdate" || payload != R"({"id":1})") ++corrupted;
          ++counts[i];
        });
  }
  EXPECT_NE(tokens[0], tokens[1]);

  // Listeners that come and go meanwhile must neither disturb delivery nor be kept.
  std::atomic<bool> emitting = true;
  std::atomic<int> churnCalls = 0;
  std::thread churn([&] {
    while (emitting) {
      const auto token = dispatcher.addEventListener(
          [&churnCalls](const std::string&, const std::string&) { ++churnCalls; });
      dispatcher.removeEventListener(token);
    }
  });
  std::vector<std::thread> emitters;
  for (int t = 0; t < kThreads; ++t) {
    emitters.emplace_back([&dispatcher] {
      for (int e = 0; e < kEventsPerThread; ++e) dispatcher.emitEvent("Store.OnUpdate", R"({"id":1})");
    });
  }
  for (auto& emitter : emitters) emitter.join();
  emitting = false;
  churn.join();

  for (int i = 0; i < kListeners; ++i) EXPECT_EQ(counts[i], kThreads * kEventsPerThread);
  EXPECT_EQ(corrupted, 0);

  const int churnBefore = churnCalls;
  dispatcher.removeEventListener(tokens[1]);
  dispatcher.removeEventListener(tokens[1]);  // a second removal is harmless
  dispatcher.emitEvent("Store.OnUpdate", R"({"id":1})");
  EXPECT_EQ(counts[0], kThreads * kEventsPerThread + 1);
  EXPECT_EQ(counts[1], kThreads * kEventsPerThread);
  EXPECT_EQ(counts[2], kThreads * kEventsPerThread + 1);
  EXPECT_EQ(churnCalls, churnBefore);
}

}  // namespace
}  // namespace vorn::tesk
