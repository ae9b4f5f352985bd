// The driver's store controls as a developer types them: each line's answer, and what the
// purchase it made carries.
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <string>
#include <vector>

#include "support/driver_process.h"

namespace {

namespace json = boost::json;
using testsupport::runDriver;

const std::string kPro = "com.vorntesk.sample.pro.monthly";
const std::string kComeback = "trailclub.comeback.sixmonths";

TEST(StoreControls, BuyProductTakesAPromotionalOfferFromOutsideTheApp) {
  const auto buy = [](const std::string& product, const std::string& extra) {
    return R"({"id":1,"store":"buyProduct","productID":")" + product + R"(")" + extra + "}";
  };
  const struct {
    std::string line;
    std::string answer;  // the answer's start
  } cases[] = {
      {buy(kPro, R"(,"promotionalOfferID":")" + kComeback + R"(")"), R"({"id":1,"ok":true,)"},
      {buy(kPro, R"(,"promotionalOfferID":")" + kComeback + R"(","signature":"c2lnbmF0dXJl")"),
       R"({"id":1,"ok":true,)"},
      {buy(kPro, R"(,"promotionalOfferID":")" + kComeback + R"(","signature":"not base64!")"),
       R"({"id":1,"error":"invalidOfferSignature")"},
      {buy(kPro, R"(,"promotionalOfferID":"no.such.offer")"),
       R"({"id":1,"error":"invalidOfferIdentifier")"},
      {buy("com.vorntesk.sample.coins100", R"(,"promotionalOfferID":")" + kComeback + R"(")"),
       R"({"id":1,"error":"ineligibleForOffer")"},
  };
  for (const auto& row : cases) {
    const auto run = runDriver({row.line, R"({"id":2,"call":"GetAllTransactions"})"});
    ASSERT_EQ(run.lines.size(), 2u) << run.errors;
    EXPECT_EQ(run.lines[0].rfind(row.answer, 0), 0u) << row.line << "\n  " << run.lines[0];
    const auto transactions =
        json::parse(run.lines[1]).at("envelope").at("success").at("transactions").as_array();
    if (row.answer.find("ok") == std::string::npos) {
      EXPECT_TRUE(transactions.empty()) << row.line;
      continue;
    }
    // Bought with the offer: its id, its price and its type (promotional).
    ASSERT_EQ(transactions.size(), 1u);
    EXPECT_EQ(transactions[0].at("offerType"), 2);
    EXPECT_EQ(std::string(transactions[0].at("offerId").as_string()), kComeback);
    EXPECT_EQ(transactions[0].at("price"), "19.99");
  }
}

TEST(StoreControls, TimeRateTakesOnlyTheRatesTheStoreRunsAt) {
  std::vector<std::string> input;
  const std::vector<std::string> rates = {"1005", "7", "15", "1006", "3", "-1"};
  for (const auto& rate : rates) {
    input.push_back(R"({"id":")" + rate + R"(","store":"timeRate","value":)" + rate + "}");
  }
  input.push_back(R"({"id":"now","store":"timeRate"})");
  const auto run = runDriver(input);
  ASSERT_EQ(run.lines.size(), rates.size() + 1) << run.errors;
  for (std::size_t i = 0; i < rates.size(); ++i) {
    const bool known = rates[i] != "7" && rates[i] != "1006" && rates[i] != "-1";
    const auto expected = known ? R"({"id":")" + rates[i] + R"(","ok":true,"value":)" + rates[i] + "}"
                                : R"({"id":")" + rates[i] + R"(","error":"unknown time rate )" + rates[i] + " (";
    EXPECT_EQ(run.lines[i].rfind(expected, 0), 0u) << run.lines[i];
  }
  // A refused value changes nothing.
  EXPECT_EQ(run.lines.back(), R"({"id":"now","ok":true,"value":3})");
}

}  // namespace
