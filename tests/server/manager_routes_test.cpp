// The Transaction Manager's endpoints beside the App Store Server API: no bearer token for the
// page's own paths (and still one for the API's), answers only on loopback unless allowed
// from elsewhere, a control's refusal in words, and an event stream that tells of each change.
#include <gtest/gtest.h>

#include <httplib.h>

#include <boost/json/parse.hpp>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "appstore/server/app_store_server.h"
#include "appstore/server/manager_routes.h"

namespace appstore::server {
namespace {

namespace json = boost::json;

struct Answer {
  int status = 0;
  std::string body;
};

Answer ask(int port, const std::string& method, const std::string& path, const std::string& body = "") {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(10);
  auto result = method == "GET" ? client.Get(path) : client.Post(path, body, "application/json");
  if (!result) return {};
  return {result->status, result->body};
}

int portOf(const AppStoreServer& server) {
  const auto url = server.url();
  return std::stoi(url.substr(url.rfind(':') + 1));
}

TEST(ManagerRoutes, AnswerWithoutATokenOnlyOnLoopbackUnlessAllowed) {
  const auto store = LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  const auto key = InAppPurchaseKey::generate("KEY1", "ISSUER");
  const struct {
    const char* host;
    bool allowed;
    int pageEndpoints;
  } cases[] = {{"127.0.0.1", false, 200}, {"0.0.0.0", false, 403}, {"0.0.0.0", true, 200}};
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.host) + (row.allowed ? " allowed" : ""));
    ServerOptions options{row.host, 0, key, row.allowed};
    const auto server = AppStoreServer::start(store, options);
    const int port = portOf(*server);
    const auto page = ask(port, "GET", "/");
    EXPECT_EQ(page.status, 200);
    EXPECT_NE(page.body.find("<title>Transaction Manager</title>"), std::string::npos);
    EXPECT_EQ(ask(port, "GET", "/manager/state").status, row.pageEndpoints);
    EXPECT_EQ(ask(port, "POST", "/manager/control", R"({"control":"now"})").status, row.pageEndpoints);
    // The API still wants its token.
    EXPECT_EQ(ask(port, "GET", "/inApps/v1/transactions/1").status, 401);
  }
  EXPECT_TRUE(isLoopback("localhost") && isLoopback("::1") && isLoopback("127.0.0.2"));
  EXPECT_FALSE(isLoopback("0.0.0.0") || isLoopback("192.168.1.2") || isLoopback("::"));
}

TEST(ManagerRoutes, ControlsAnswerInWordsAndChangesAreStreamed) {
  const auto store = LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  const auto server = AppStoreServer::start(store, {"127.0.0.1", 0, InAppPurchaseKey::generate("K", "I")});
  const int port = portOf(*server);
  const struct {
    std::string body;
    int status;
    std::string answer;  // a member of it
  } cases[] = {
      {R"({"control":"buyProduct","productID":"com.vorntesk.sample.coins100"})", 200, R"("transactionId":1)"},
      {R"({"control":"storefront","value":"XXX"})", 400, R"({"error":"unknown storefront \"XXX\""})"},
      {R"({"control":"noSuchControl"})", 400, R"(unknown store control \"noSuchControl\")"},
      {R"({"control":"refundTransaction"})", 400, R"(missing argument \"identifier\")"},
      {R"(["not an object"])", 400, R"({"error":"the request is not a JSON object"})"},
  };
  for (const auto& row : cases) {
    const auto answer = ask(port, "POST", "/manager/control", row.body);
    EXPECT_EQ(answer.status, row.status) << row.body;
    EXPECT_NE(answer.body.find(row.answer), std::string::npos) << row.body << "\n  " << answer.body;
  }
  const auto state = json::parse(ask(port, "GET", "/manager/state").body);
  ASSERT_EQ(state.at("transactions").as_array().size(), 1u);
  EXPECT_EQ(state.at("transactions").at(0).at("productId"), "com.vorntesk.sample.coins100");

  // The stream tells of a change as it happens (changes made together may come as one event).
  std::mutex mutex;
  std::condition_variable arrived;
  std::string received;
  const auto events = [&] {
    std::size_t count = 0;
    for (auto at = received.find("event: changed"); at != std::string::npos;
         at = received.find("event: changed", at + 1)) {
      ++count;
    }
    return count;
  };
  std::thread reader([&] {
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(10);
    client.Get("/manager/events", [&](const char* data, std::size_t length) {
      std::lock_guard lock(mutex);
      received.append(data, length);
      arrived.notify_all();
      return events() < 2;
    });
  });
  const auto waitFor = [&](std::size_t count) {
    std::unique_lock lock(mutex);
    return arrived.wait_for(lock, std::chrono::seconds(10), [&] { return events() >= count; });
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the stream is open
  store->buyProduct("com.vorntesk.sample.removeads");
  EXPECT_TRUE(waitFor(1)) << received;
  store->setStorefront("CAN");  // a setting, not a commit
  EXPECT_TRUE(waitFor(2)) << received;
  reader.join();
}

}  // namespace
}  // namespace appstore::server
