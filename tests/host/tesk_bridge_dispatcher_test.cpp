// The host bridge: plug-ins kept, replaced and called by name, events, the error record.
#include "host/tesk_bridge_dispatcher.h"
#include "host/vorn_error.h"

#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>

#include <thread>
#include <vector>

namespace vorn::tesk {
namespace {

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

TEST(TeskBridgeDispatcherTest, DeliversEveryEventToEveryListenerFromAnyThread) {
  TeskBridgeDispatcher dispatcher;
  std::vector<std::string> events[2];
  TeskBridgeDispatcher::ListenerToken tokens[2];
  for (int i = 0; i < 2; ++i) {
    tokens[i] =
        dispatcher.addEventListener([&, i](const std::string& name, const std::string& data) {
          events[i].push_back(name + data);
        });
  }
  std::thread([&] { dispatcher.emitEvent("Store.OnUpdate", "1"); }).join();
  dispatcher.removeEventListener(tokens[0]);
  dispatcher.emitEvent("Store.OnUpdate", "2");
  EXPECT_EQ(events[0], std::vector<std::string>{"Store.OnUpdate1"});
  EXPECT_EQ(events[1], (std::vector<std::string>{"Store.OnUpdate1", "Store.OnUpdate2"}));
}

TEST(VornErrorTest, CodesTravelInUpperSnakeCaseAndEmptyMembersArePresent) {
  EXPECT_EQ(wireString(VornErrorCode::deadlineExceeded), "DEADLINE_EXCEEDED");
  VornError error{VornErrorCode::unauthenticated, "Boom"};
  error.details = std::map<std::string, std::string>{};
  error.instance = "";
  EXPECT_EQ(boost::json::serialize(error.toJSONObject()),
            R"({"code":"UNAUTHENTICATED","message":"Boom","details":{},"instance":""})");
}

}  // namespace
}  // namespace vorn::tesk
