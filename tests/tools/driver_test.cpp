// The host driver as its users run it: a separate process fed JSON Lines on stdin.
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct DriverRun {
  int exitStatus = -1;
  std::vector<std::string> lines;  // standard output
  std::string errors;              // standard error
};

std::string take(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  std::filesystem::remove(path);
  return text.str();
}

// Runs the driver with `arguments`, the `input` lines as its standard input, until it exits.
DriverRun runDriver(const std::vector<std::string>& input, const std::string& arguments = "") {
  static int runs = 0;
  const auto base = std::filesystem::temp_directory_path().string() + "/vorntesk-driver-" +
                    std::to_string(::getpid()) + "-" + std::to_string(++runs);
  std::ofstream in(base + ".in");
  for (const auto& line : input) in << line << "\n";
  in.close();
  const int status = std::system((VORNTESK_DRIVER_PATH " " + arguments + " < " + base + ".in > " +
                                  base + ".out 2> " + base + ".err")
                                     .c_str());
  take(base + ".in");
  DriverRun run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, {}, take(base + ".err")};
  const std::string output = take(base + ".out");
  EXPECT_TRUE(output.empty() || output.back() == '\n') << "output ends in a partial line";
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) run.lines.push_back(line);
  return run;
}

const std::string kStorefront =
    R"("envelope":{"success":{"countryCode":"USA","identifier":"143441"}}})";

TEST(HostDriver, ReportsLinesItCannotUnderstandAndAnswersCallsWithTheEnvelopeVerbatim) {
  const DriverRun run = runDriver({
      "not json",
      "[1,2]",
      R"({"id":1})",
      R"({"id":2,"call":7})",
      R"({"id":3,"call":"Sync","detach":"yes"})",
      R"({"id":4,"call":"Sync","payload":{},"payloadText":"{}"})",
      R"({"id":5,"store":"noSuchControl"})",
      R"({"id":6,"store":"approveAskToBuyTransaction"})",
      R"({"id":7,"store":"approveAskToBuyTransaction","identifier":"x"})",
      R"({"id":8,"store":"approveAskToBuyTransaction","identifier":99})",
      "",
      R"({"note":"a comment gets no answer"})",
      R"({"id":1,"call":"GetStorefront"})",
      R"({"id":"two","call":"GetProducts","payload":{"productIds":[]}})",
      R"({"id":3,"call":"FinishTransaction","payload":{"transactionId":424242}})",
      R"({"id":4,"call":"Refund"})",
      R"({"id":5,"callSync":"GetStorefront","payload":{}})",
      R"({"id":6,"call":"Purchase","payloadText":"{\"productId\":"})",
      R"({"id":7,"cancel":-3})",
  });
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  ASSERT_EQ(run.lines.size(), 17U);
  const std::vector<std::string> ids = {"null", "null", "1", "2", "3", "4", "5", "6", "7", "8"};
  for (std::size_t i = 0; i < ids.size(); ++i) {
    SCOPED_TRACE(run.lines[i]);
    const auto line = boost::json::parse(run.lines[i]).as_object();
    EXPECT_EQ(boost::json::serialize(line.at("id")), ids[i]);
    EXPECT_TRUE(line.at("error").is_string());
  }
  EXPECT_NE(run.lines[0].find("not valid JSON"), std::string::npos);
  EXPECT_NE(run.lines[6].find("noSuchControl"), std::string::npos);
  EXPECT_NE(run.lines[7].find(R"(missing argument \"identifier\")"), std::string::npos);
  // The driver goes on: answers inserted as the service gave them.
  EXPECT_EQ(run.lines[10], R"({"id":1,)" + kStorefront);
  EXPECT_EQ(run.lines[11], R"({"id":"two","envelope":{"error":{"code":"INVALID_ARGUMENT",)"
                           R"("message":"productIds must not be empty."}}})");
  EXPECT_EQ(run.lines[12],
            R"({"id":3,"envelope":{"outcome":{"code":"transaction_not_found","data":{}}}})");
  EXPECT_EQ(run.lines[13], R"({"id":4,"envelope":{"error":{"code":"UNIMPLEMENTED",)"
                           R"("message":"Unknown ASYNC method: Refund"}}})");
  EXPECT_EQ(run.lines[14], R"({"id":5,"envelope":{"error":{"code":"INTERNAL",)"
                           R"("message":"Plugin AppleStoreKitService has no SYNC methods"}}})");
  EXPECT_EQ(boost::json::parse(run.lines[15]).at("envelope").at("error").at("code"), "INTERNAL");
  EXPECT_EQ(run.lines[16], R"({"id":7,"ok":true})");
}

TEST(HostDriver, DetachedCallsAreEachAnsweredOnceBeforeExitAndEventsCarryTheRecordVerbatim) {
  std::vector<std::string> input = {
      R"({"id":"a","call":"StartTransactionObserver"})",
      R"({"id":"b","store":"buyProduct","productID":"com.vorntesk.sample.removeads"})"};
  std::vector<std::string> expected;
  for (int i = 100; i < 300; ++i) {
    const auto id = std::to_string(i);
    input.push_back(R"({"id":)" + id +
                    R"(,"call":"FinishTransaction","payload":{"transactionId":)" + id +
                    R"(},"detach":true})");
    expected.push_back(R"({"id":)" + id +
                       R"(,"envelope":{"outcome":{"code":"transaction_not_found","data":{}}}})");
  }
  input.push_back(R"({"id":"c","call":"GetUnfinishedTransactions"})");
  const DriverRun run = runDriver(input);
  EXPECT_EQ(run.exitStatus, 0);
  ASSERT_EQ(run.lines.size(), 204U);
  const std::string prefix = R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)";
  std::vector<std::string> detached;
  std::string event;
  for (const auto& line : run.lines) {
    if (line.rfind(prefix, 0) == 0) {
      event = line.substr(prefix.size(), line.size() - prefix.size() - 1);
      // The event a line causes is written before the following lines are answered.
      EXPECT_TRUE(detached.empty());
    }
    if (line.find(R"("transaction_not_found")") != std::string::npos) detached.push_back(line);
  }
  std::sort(detached.begin(), detached.end());
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
  const DriverRun newer = runDriver({purchase});
  const DriverRun older = runDriver({purchase}, "--os-version 17.1");
  ASSERT_EQ(newer.lines.size(), 1U);
  ASSERT_EQ(older.lines.size(), 1U);
  EXPECT_NE(newer.lines[0].find(R"("appTransactionId")"), std::string::npos);
  EXPECT_EQ(older.lines[0].find(R"("appTransactionId")"), std::string::npos);
  EXPECT_NE(older.lines[0].find(R"("price":"0.99")"), std::string::npos);

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
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_GT(help.lines.size(), 40U);
}

}  // namespace
