// The Transaction Manager page in Debian's Chromium, driven by puppeteer-core (installed here by
// the test), against a running driver: the page lists what the app bought, its buttons reach
// the app as update events, the ledger's changes from elsewhere appear without a reload, a
// control that fails says why, and nothing outside the server is fetched. Each step leaves a
// screenshot under build/<preset>/browser/shots/.
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "interop/node_packages.h"
#include "support/driver_process.h"

namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using testsupport::RunningDriver;

const char* kChromium = "/usr/bin/chromium";
using testsupport::readFile;

class ManagerPage : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(kChromium)) << "Debian's chromium is not installed (make deps installs it)";
    fs::create_directories(dir_ / "shots");
    const auto failure = testsupport::installNodePackages(
        VORNTESK_SOURCE_DIR "/tests/browser", dir_, {"package.json", "manager_page.cjs"},
        "puppeteer-core");
    ASSERT_FALSE(failure) << *failure;
  }

  // Whether the driver printed an update event for transaction `id` (within ten seconds).
  static bool updateEventFor(RunningDriver& driver, std::int64_t id, const char* member = nullptr) {
    const std::string prefix = R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)";
    for (int i = 0; i < 100; ++i) {
      for (const auto& line : driver.lines()) {
        if (line.rfind(prefix, 0) != 0) continue;
        const auto payload = json::parse(line).at("payload").as_object();
        if (payload.at("id").as_int64() == id && (!member || payload.contains(member))) return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  const fs::path dir_ = fs::path(VORNTESK_BINARY_DIR) / "browser";
};

TEST_F(ManagerPage, FollowsTheLedgerAndItsButtonsReachTheApp) {
  // A driver serving the page, with the transaction observer started so that update events
  // are printed.
  const auto driver = std::make_unique<RunningDriver>(std::vector<std::string>{
      "--server", "0", "--api-key", (dir_ / "key.p8").string(), "--key-id", "KEY", "--issuer-id",
      "ISSUER"});
  driver->send(R"({"id":"o","call":"StartTransactionObserver"})");
  ASSERT_TRUE(driver->waitForAnswer("o"));
  driver->send(R"({"id":"b1","call":"Purchase","payload":{"productId":"com.vorntesk.sample.coins100"}})");
  ASSERT_TRUE(driver->waitForAnswer("b1"));
  driver->send(R"({"id":"a1","store":"askToBuyEnabled","value":true})");
  driver->send(R"({"id":"b2","call":"Purchase","payload":{"productId":"com.vorntesk.sample.basic.monthly"}})");
  const auto pending = driver->waitForAnswer("b2");
  ASSERT_TRUE(pending && pending->find("pending") != std::string::npos) << pending.value_or("");
  driver->send(R"({"id":"a2","store":"askToBuyEnabled","value":false})");
  driver->send(R"({"id":"url","store":"server"})");
  const auto server = driver->waitForAnswer("url");
  ASSERT_TRUE(server);

  std::ofstream(dir_ / "input.json") << json::serialize(json::object{
      {"url", json::parse(*server).at("url")}, {"shots", (dir_ / "shots").string()},
      {"chromium", kChromium}});
  RunningDriver page({"node", (dir_ / "manager_page.cjs").string(), (dir_ / "input.json").string()},
                     (dir_ / "page-errors.log").string(), "/usr/bin/env");
  const auto step = [&](const char* id) {
    auto line = page.waitForAnswer(id);
    if (!line) {
      ADD_FAILURE() << "no step " << id << "; the page script said: " << readFile(dir_ / "page-errors.log");
      for (const auto& said : page.lines()) ADD_FAILURE() << said;
      return json::object{};
    }
    return json::parse(*line).as_object();
  };

  const auto listed = step("listed");
  ASSERT_FALSE(listed.empty());
  EXPECT_EQ(listed.at("product"), "com.vorntesk.sample.coins100");
  EXPECT_EQ(listed.at("state"), "purchased");
  EXPECT_EQ(listed.at("pending"), "pending ask-to-buy");

  EXPECT_EQ(step("approved").at("state"), "purchased");
  EXPECT_TRUE(updateEventFor(*driver, 2)) << "the approval did not reach the app";
  page.send("go");

  EXPECT_NE(step("refunded").at("flags").as_string().find("revoked"), std::string::npos);
  EXPECT_TRUE(updateEventFor(*driver, 1, "revocationDate")) << "the refund did not reach the app";
  page.send("go");

  const auto renewed = step("renewed");
  EXPECT_EQ(renewed.at("rows"), json::parse(R"(["3","2","1"])"));
  // Bought from the driver while the page is open: it appears there without a reload.
  driver->send(R"({"id":"b3","store":"buyProduct","productID":"com.vorntesk.sample.removeads"})");
  ASSERT_TRUE(driver->waitForAnswer("b3"));
  page.send("go");
  step("driverPurchaseShown");

  const auto result = step("result");
  ASSERT_FALSE(result.empty());
  EXPECT_EQ(result.at("refusal"), "unknown storefront \"XXX\"");
  EXPECT_EQ(result.at("blocked"), json::array{}) << "the page fetched something besides the server";
  EXPECT_EQ(result.at("failures"), json::array{});
  EXPECT_LE(result.at("overflow").as_int64(), 0) << "the page is wider than a phone's screen";
  for (const char* shot : {"1-listed", "2-approved", "3-refunded", "4-renewed", "5-bought-from-the-driver",
                           "6-refused", "7-phone"}) {
    EXPECT_GT(fs::file_size(dir_ / "shots" / (std::string(shot) + ".png")), 1000u) << shot;
  }
}

}  // namespace
