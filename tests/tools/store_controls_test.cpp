// The driver's store controls as a developer types them: the answer each line gets, the ones
// refused naming their reason, and what a purchase made by a control carries.
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <string>
#include <vector>

#include "tools/subscription_session.h"

namespace {

using namespace testsupport;

const std::string kComeback = "trailclub.comeback.sixmonths";

// A control line with id "x".
std::string control(const std::string& name, const std::string& members = "") {
  return R"({"id":"x","store":")" + name + "\"" + (members.empty() ? "" : "," + members) + "}";
}
std::string purchase(const std::string& product) {
  return R"({"id":"x","call":"Purchase","payload":{"productId":")" + product + R"("}})";
}
std::string buy(const std::string& product, const std::string& members = "") {
  return control("buyProduct", R"("productID":")" + product + "\"" + members);
}
std::string offer(const std::string& id, const std::string& members = "") {
  return buy(kPro, R"(,"promotionalOfferID":")" + id + "\"" + members);
}
std::string extend(const std::string& members) {
  return control("extendRenewalDate", R"("originalTransactionId":1,)" + members);
}

TEST(StoreControls, EachRefusedLineNamesItsReasonAndAKnownOneIsAnswered) {
  const auto buyBasic = purchase(kBasic), buyPro = purchase(kPro), plans = buy("standard.monthly");
  const auto twice = extend(R"("extendByDays":1,"requestIdentifier":"r1")");
  const auto again = extend(R"("extendByDays":1,"requestIdentifier":"r2")");
  const auto rate = [](const char* value) {
    return control("timeRate", R"("value":)" + std::string(value));
  };
  const auto bothBought = std::vector<std::string>{plans, buy("album")};
  const struct {
    std::vector<std::string> lines;  // the last one is checked
    std::string answer;              // its start after the id
    bool withPlans = false;          // the driver runs on plans.storekit
  } cases[] = {
      // clang-format off
      {{rate("1005")}, R"("ok":true,"value":1005})"},
      {{rate("7")}, R"("error":"unknown time rate 7 ()"},
      {{rate("3"), rate("1006"), control("timeRate")}, R"("ok":true,"value":3})"},  // unchanged
      {{buyBasic, extend(R"("extendByDays":0,"requestIdentifier":"r")")}, R"("error":"invalidExtendByDays: )"},
      {{buyBasic, extend(R"("extendByDays":91,"requestIdentifier":"r")")}, R"("error":"invalidExtendByDays: )"},
      {{buyBasic, extend(R"("extendByDays":1,"extendReasonCode":4,"requestIdentifier":"r")")}, R"("error":"invalidExtendReasonCode: )"},
      {{buyBasic, extend(R"("extendByDays":1,"requestIdentifier":"")")}, R"("error":"invalidRequestIdentifier: )"},
      {{buyBasic, extend(R"("extendByDays":1,"requestIdentifier":")" + std::string(129, 'x') + "\"")}, R"("error":"invalidRequestIdentifier: )"},
      {{extend(R"("extendByDays":1,"requestIdentifier":"r")")}, R"("error":"notFound: )"},
      {{buyPro, extend(R"("extendByDays":1,"requestIdentifier":"r")")}, R"("error":"ineligible: )"},  // free trial
      {{buyBasic, control("expireSubscription", R"("productID":")" + kBasic + "\""), extend(R"("extendByDays":1,"requestIdentifier":"r")")}, R"("error":"ineligible: )"},
      {{buyBasic, twice, again, extend(R"("extendByDays":1,"requestIdentifier":"r3")")}, R"("error":"maximumReached: )"},
      // Not every product can be shared; only shared transactions can be revoked.
      {{control("shareWithFamily", R"("productID":"standard.monthly")")}, R"("error":")", true},
      {{plans, control("revokeFamilySharing", R"("identifier":1)")}, R"("error":")", true},
      // What cannot be asked for, granted or reversed.
      {{plans, buy("album"), control("requestRefund", R"("identifier":2,"reason":"TOO_EXPENSIVE")")}, R"("error":")", true},
      {{plans, buy("album"), control("requestRefund", R"("identifier":9,"reason":"OTHER")")}, R"("error":")", true},
      {{plans, buy("album"), control("reverseRefund", R"("identifier":2)")}, R"("error":")", true},
      {{plans, buy("album"), control("declineRefund", R"("identifier":9)")}, R"("error":")", true},
      // clang-format on
  };
  for (const auto& row : cases) {
    const auto run = runDriver(row.lines, row.withPlans ? kPlans[0] + " " + kPlans[1] : "");
    ASSERT_EQ(run.lines.size(), row.lines.size()) << run.errors;
    EXPECT_TRUE(run.lines.back().starts_with(R"({"id":"x",)" + row.answer))
        << row.lines.back() << "\n  " << run.lines.back();
  }
}

TEST(StoreControls, BuyProductTakesAPromotionalOfferFromOutsideTheApp) {
  const std::pair<std::string, std::string> cases[] = {
      {offer(kComeback), R"("ok":true,)"},
      {offer(kComeback, R"(,"signature":"c2lnbmF0dXJl")"), R"("ok":true,)"},
      {offer(kComeback, R"(,"signature":"not base64!")"), R"("error":"invalidOfferSignature)"},
      {offer("no.such.offer"), R"("error":"invalidOfferIdentifier)"},
      {buy("com.vorntesk.sample.coins100", R"(,"promotionalOfferID":")" + kComeback + "\""),
       R"("error":"ineligibleForOffer)"},
  };
  for (const auto& [line, answer] : cases) {
    const auto run = runDriver({line, R"({"id":2,"call":"GetAllTransactions"})"});
    ASSERT_EQ(run.lines.size(), 2u) << run.errors;
    EXPECT_TRUE(run.lines[0].starts_with(R"({"id":"x",)" + answer))
        << line << "\n  " << run.lines[0];
    // Bought with the offer: its id, its price and its type (promotional); refused: nothing.
    const auto transactions =
        json::parse(run.lines[1]).at("envelope").at("success").at("transactions").as_array();
    ASSERT_EQ(transactions.size(), answer.starts_with(R"("ok")") ? 1u : 0u) << line;
    if (transactions.empty()) continue;
    EXPECT_EQ(transactions[0].at("offerType"), 2);
    EXPECT_EQ(transactions[0].at("offerId"), kComeback.c_str());
    EXPECT_EQ(transactions[0].at("price"), "19.99");
  }
}

}  // namespace
