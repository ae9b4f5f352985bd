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

}  // namespace
