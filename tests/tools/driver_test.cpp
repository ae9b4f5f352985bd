// The host driver as its users run it: a separate process fed JSON Lines on stdin.
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <vector>

#include "support/driver_process.h"

namespace {

using testsupport::DriverRun;
using testsupport::runDriver;

const std::string kStorefront =
    R"("envelope":{"success":{"countryCode":"USA","identifier":"143441"}}})";

TEST(HostDriver, ReportsLinesItCannotUnderstandAndAnswersCallsWithTheEnvelopeVerbatim) {
  // Lines the driver refuses: each answered with its id and an error naming the fault.
  const std::vector<std::array<std::string, 3>> refused = {
      {"not json", "null", "not valid JSON"},
      {"[1,2]", "null", "must be a JSON object"},
      {R"({"id":1})", "1", "needs one of"},
      {R"({"id":2,"call":7})", "2", "must be a method name"},
      {R"({"id":3,"call":"Sync","payload":{},"payloadText":"{}"})", "3", "not both"},
      {R"({"id":4,"store":"noSuchControl"})", "4", "noSuchControl"},
      {R"({"id":5,"store":"approveAskToBuyTransaction"})", "5", R"(argument \"identifier\")"}};
  std::vector<std::string> input;
  for (const auto& row : refused) input.push_back(row[0]);
  input.insert(
      input.end(),
      {"", R"({"note":"a comment gets no answer"})", R"({"id":1,"call":"GetStorefront"})",
       R"({"id":4,"callSync":"GetStorefront","payload":{}})",
       R"({"id":5,"call":"Purchase","payloadText":"{\"productId\":"})", R"({"id":6,"cancel":-3})"});
  const DriverRun run = runDriver(input);
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  ASSERT_EQ(run.lines.size(), 11U);
  for (std::size_t i = 0; i < refused.size(); ++i) {
    EXPECT_EQ(run.lines[i].rfind(R"({"id":)" + refused[i][1] + R"(,"error":")", 0), 0u)
        << run.lines[i];
    EXPECT_NE(run.lines[i].find(refused[i][2]), std::string::npos) << run.lines[i];
  }
  // The driver goes on: answers inserted as the service gave them.
  EXPECT_EQ(run.lines[7], R"({"id":1,)" + kStorefront);
  EXPECT_EQ(run.lines[8], R"({"id":4,"envelope":{"error":{"code":"INTERNAL",)"
                          R"("message":"Plugin AppleStoreKitService has no SYNC methods"}}})");
  EXPECT_EQ(boost::json::parse(run.lines[9]).at("envelope").at("error").at("code"), "INTERNAL");
  EXPECT_EQ(run.lines[10], R"({"id":6,"ok":true})");
}

TEST(HostDriver, DetachedCallsAreEachAnsweredOnceBeforeExitAndEventsCarryTheRecordVerbatim) {
  std::vector<std::string> input = {
      R"({"id":"a","call":"StartTransactionObserver"})",
      R"({"id":"b","store":"buyProduct","productID":"com.vorntesk.sample.removeads"})"};
  std::multiset<std::string> expected, detached;
  for (int id = 100; id < 300; ++id) {
    input.push_back(R"({"id":)" + std::to_string(id) +
                    R"(,"call":"FinishTransaction","payload":)"
                    R"({"transactionId":99999},"detach":true})");
    expected.insert(R"({"id":)" + std::to_string(id) +
                    R"(,"envelope":{"outcome":{"code":"transaction_not_found","data":{}}}})");
  }
  input.push_back(R"({"id":"c","call":"GetUnfinishedTransactions"})");
  const DriverRun run = runDriver(input);
  EXPECT_EQ(run.exitStatus, 0);
  ASSERT_EQ(run.lines.size(), 204U);
  const std::string prefix = R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)";
  std::string event;
  for (const auto& line : run.lines) {
    if (line.rfind(prefix, 0) == 0) {
      event = line.substr(prefix.size(), line.size() - prefix.size() - 1);
      // The event a line causes is written before the following lines are answered.
      EXPECT_TRUE(detached.empty());
    }
    if (line.find(R"("transaction_not_found")") != std::string::npos) detached.insert(line);
  }
  EXPECT_EQ(detached, expected);
  // The unfinished listing holds the event's record byte for byte.
  EXPECT_EQ(boost::json::parse(event).at("productId"), "com.vorntesk.sample.removeads");
  const auto listing = std::find_if(run.lines.begin(), run.lines.end(),
                                    [](const auto& line) { return line.find(R"("c")") == 6; });
  ASSERT_NE(listing, run.lines.end());
  EXPECT_NE(listing->find(event), std::string::npos) << *listing;
}

TEST(HostDriver, OptionsChooseTheSystemVersionTheConfigurationAndTheTranscript) {
  const std::string purchase =
      R"({"id":1,"call":"Purchase","payload":{"productId":"com.vorntesk.sample.coins100"}})";
  EXPECT_NE(runDriver({purchase}).lines.at(0).find(R"("appTransactionId")"), std::string::npos);
  const auto older = runDriver({purchase}, "--os-version 17.1").lines.at(0);
  EXPECT_EQ(older.find(R"("appTransactionId")"), std::string::npos);
  EXPECT_NE(older.find(R"("price":"0.99")"), std::string::npos);

  const DriverRun transcript =
      runDriver({R"({"note":"Storefront"})", R"({"id":1,"call":"GetStorefront"})"}, "--transcript");
  EXPECT_EQ(
      transcript.lines,
      (std::vector<std::string>{"", "== Storefront", R"(  send   {"id":1,"call":"GetStorefront"})",
                                R"(  answer {"id":1,)" + kStorefront}));

  const DriverRun missing = runDriver({}, "--config /nonexistent/Store.storekit");
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.errors.find("/nonexistent/Store.storekit"), std::string::npos);
  EXPECT_EQ(runDriver({}, "--os-version seventeen").exitStatus, 2);
  EXPECT_EQ(runDriver({}, "--bogus").exitStatus, 2);
  const DriverRun help = runDriver({}, "--help");
  EXPECT_TRUE(help.exitStatus == 0 && help.lines.size() > 40U) << help.exitStatus;
}

}  // namespace
