// The host bridge: plug-ins kept, replaced and called by name, events for every listener from
// any thread, and the error record that answers carry.
#include "host/tesk_bridge_dispatcher.h"
#include "host/vorn_error.h"

#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>

#include <atomic>
#include <thread>
#include <vector>

namespace vorn::tesk {
namespace {

// Answers every call at once with "<tag>:<method>:<payload>".
struct EchoPlugin : TeskPlugin {
  explicit EchoPlugin(std::string tag) : tag(std::move(tag)) {}
  std::string callSync(const std::string& method, const std::string& payload) override {
    return tag + ":" + method + ":" + payload;
  }
  void callAsync(std::string method, std::string payload, CompletionHandler onComplete) override {
    onComplete(callSync(method, payload));
  }
  std::string tag;
};

TEST(TeskBridgeDispatcherTest, KeepsReplacesAndRoutesToPlugins) {
  TeskBridgeDispatcher dispatcher;
  auto first = std::make_shared<EchoPlugin>("first");
  auto second = std::make_shared<EchoPlugin>("second");
  dispatcher.registerPlugin("Store", first);
  dispatcher.registerPlugin("Other", std::make_shared<EchoPlugin>("other"));
  dispatcher.registerPlugin("Store", second);
  EXPECT_EQ(dispatcher.plugin("Store"), second);
  EXPECT_EQ(first.use_count(), 1) << "the replaced plug-in is still kept";
  std::vector<std::string> answers;
  for (const char* service : {"Store", "Other", "store"}) {
    dispatcher.callAsync(service, "Sync", "[]",
                         [&](std::string answer) { answers.push_back(answer); });
  }
  // Service names are exact: "store" is unknown, and the answer says which one it was.
  EXPECT_EQ(answers,
            (std::vector<std::string>{
                "second:Sync:[]", "other:Sync:[]",
                R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown service: store"}})"}));
  dispatcher.removeAllPlugins();
  EXPECT_EQ(dispatcher.plugin("Store"), nullptr);
  EXPECT_EQ(second.use_count(), 1);
}

TEST(TeskBridgeDispatcherTest, DeliversEveryEventToEveryListenerFromManyThreads) {
  TeskBridgeDispatcher dispatcher;
  constexpr int kThreads = 8, kEvents = kThreads * 400;
  std::atomic<int> counts[3] = {}, garbled = 0;
  TeskBridgeDispatcher::ListenerToken tokens[3];
  for (int i = 0; i < 3; ++i) {
    tokens[i] =
        dispatcher.addEventListener([&, i](const std::string& name, const std::string& payload) {
          if (name != "Store.OnUpdate" || payload != R"({"id":1})") ++garbled;
          ++counts[i];
        });
  }
  std::vector<std::thread> emitters;
  for (int t = 0; t < kThreads; ++t) {
    emitters.emplace_back([&] {
      for (int e = 0; e < kEvents / kThreads; ++e)
        dispatcher.emitEvent("Store.OnUpdate", R"({"id":1})");
    });
  }
  for (auto& emitter : emitters) emitter.join();
  EXPECT_EQ(garbled, 0);
  dispatcher.removeEventListener(tokens[1]);
  dispatcher.emitEvent("Store.OnUpdate", R"({"id":1})");
  EXPECT_EQ(counts[0], kEvents + 1);
  EXPECT_EQ(counts[1], kEvents);
  EXPECT_EQ(counts[2], kEvents + 1);
}

TEST(VornErrorTest, CodesTravelInUpperSnakeCaseAndMembersOnlyWhenPresentInFieldOrder) {
  std::string wire;
  for (int code = 0; code <= static_cast<int>(VornErrorCode::unauthenticated); ++code) {
    wire.append(wireString(static_cast<VornErrorCode>(code))).push_back(' ');
  }
  EXPECT_EQ(wire,
            "CANCELLED UNKNOWN INVALID_ARGUMENT DEADLINE_EXCEEDED NOT_FOUND ALREADY_EXISTS "
            "PERMISSION_DENIED RESOURCE_EXHAUSTED FAILED_PRECONDITION ABORTED OUT_OF_RANGE "
            "UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS UNAUTHENTICATED ");
  // Optional members only when present, empty ones included (every member: tests/bridge).
  VornError error{VornErrorCode::internalError, "Boom \"quoted\""};
  EXPECT_EQ(boost::json::serialize(error.toJSONObject()),
            R"({"code":"INTERNAL","message":"Boom \"quoted\""})");
  error.details = std::map<std::string, std::string>{};
  error.instance = "";
  EXPECT_EQ(boost::json::serialize(error.toJSONObject()),
            R"({"code":"INTERNAL","message":"Boom \"quoted\"","details":{},"instance":""})");
}

}  // namespace
}  // namespace vorn::tesk
