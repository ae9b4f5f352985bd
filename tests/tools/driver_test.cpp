// The host driver as its users run it: a separate process fed JSON Lines on stdin.
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

struct DriverRun {
  int exitStatus = -1;
  std::vector<std::string> lines;  // standard output, split into lines
  std::string errors;              // standard error
};

void readAll(int fd, std::string& into) {
  std::array<char, 65536> buffer{};
  for (;;) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count > 0) {
      into.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return;
    }
  }
}

// Starts the driver with `arguments`, writes `input` to it and closes its input, and
// collects everything it prints until it exits.
DriverRun runDriver(const std::string& input, std::vector<std::string> arguments = {}) {
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  EXPECT_EQ(::pipe(in.data()), 0);
  EXPECT_EQ(::pipe(out.data()), 0);
  EXPECT_EQ(::pipe(err.data()), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  for (const int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) {
    posix_spawn_file_actions_addclose(&actions, fd);
  }
  arguments.insert(arguments.begin(), VORNTESK_DRIVER_PATH);
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, VORNTESK_DRIVER_PATH, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  DriverRun run;
  if (spawned != 0) {
    ADD_FAILURE() << "could not start " << VORNTESK_DRIVER_PATH;
    return run;
  }
  std::thread writer([&] {
    std::size_t written = 0;
    while (written < input.size()) {
      const ssize_t count = ::write(in[1], input.data() + written, input.size() - written);
      if (count <= 0) break;
      written += static_cast<std::size_t>(count);
    }
    ::close(in[1]);
  });
  std::string output;
  std::thread errorReader([&] { readAll(err[0], run.errors); });
  readAll(out[0], output);
  writer.join();
  errorReader.join();
  ::close(out[0]);
  ::close(err[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::size_t start = 0;
  for (std::size_t end; (end = output.find('\n', start)) != std::string::npos; start = end + 1) {
    run.lines.push_back(output.substr(start, end - start));
  }
  EXPECT_EQ(start, output.size()) << "output does not end with a complete line";
  return run;
}

std::string lines(std::initializer_list<std::string_view> list) {
  std::string text;
  for (const auto line : list) (text += line) += '\n';
  return text;
}

TEST(HostDriver, AnswersCallsWithTheEnvelopeInsertedVerbatim) {
  const DriverRun run = runDriver(lines({
      R"({"id":1,"call":"GetStorefront"})",
      R"({"id":"two","call":"GetProducts","payload":{"productIds":[]}})",
      R"({"id":3,"call":"FinishTransaction","payload":{"transactionId":424242}})",
      R"({"id":4,"call":"Refund"})",
      R"({"id":5,"callSync":"GetStorefront","payload":{}})",
      R"({"id":6,"call":"Purchase","payloadText":"{\"productId\":"})",
      R"({"id":7,"cancel":-3})",
  }));
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  ASSERT_EQ(run.lines.size(), 7U);
  EXPECT_EQ(run.lines[0], R"({"id":1,"envelope":{"success":{"countryCode":"USA","identifier":"143441"}}})");
  EXPECT_EQ(run.lines[1],
            R"({"id":"two","envelope":{"error":{"code":"INVALID_ARGUMENT","message":"productIds must not be empty."}}})");
  EXPECT_EQ(run.lines[2],
            R"({"id":3,"envelope":{"outcome":{"code":"transaction_not_found","data":{}}}})");
  EXPECT_EQ(run.lines[3],
            R"({"id":4,"envelope":{"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: Refund"}}})");
  EXPECT_EQ(run.lines[4],
            R"({"id":5,"envelope":{"error":{"code":"INTERNAL","message":"Plugin AppleStoreKitService has no SYNC methods"}}})");
  const auto invalid = boost::json::parse(run.lines[5]).as_object();
  EXPECT_EQ(invalid.at("envelope").at("error").at("code").as_string(), "INTERNAL");
  EXPECT_EQ(run.lines[6], R"({"id":7,"ok":true})");
}

TEST(HostDriver, ReportsLinesItCannotUnderstandAndGoesOn) {
  const DriverRun run = runDriver(lines({
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
      R"({"id":9,"call":"GetStorefront"})",
  }));
  EXPECT_EQ(run.exitStatus, 0);
  ASSERT_EQ(run.lines.size(), 11U);
  const std::vector<std::string> expectedIds = {"null", "null", "1", "2", "3", "4", "5", "6", "7", "8"};
  for (std::size_t i = 0; i + 1 < run.lines.size(); ++i) {
    SCOPED_TRACE(run.lines[i]);
    const auto line = boost::json::parse(run.lines[i]).as_object();
    EXPECT_EQ(boost::json::serialize(line.at("id")), expectedIds[i]);
    EXPECT_TRUE(line.at("error").is_string());
  }
  EXPECT_NE(run.lines[0].find("not valid JSON"), std::string::npos);
  EXPECT_NE(run.lines[6].find("noSuchControl"), std::string::npos);
  EXPECT_NE(run.lines[7].find(R"(missing argument \"identifier\")"), std::string::npos);
  EXPECT_EQ(run.lines[10], R"({"id":9,"envelope":{"success":{"countryCode":"USA","identifier":"143441"}}})");
}

TEST(HostDriver, DetachedCallsAreEachAnsweredOnceInOrderBeforeExit) {
  std::string input;
  for (int i = 0; i < 200; ++i) {
    input += R"({"id":)" + std::to_string(i) + R"(,"call":"FinishTransaction","payload":{"transactionId":)" +
             std::to_string(i) + R"(},"detach":true})" + "\n";
  }
  const DriverRun run = runDriver(input);
  EXPECT_EQ(run.exitStatus, 0);
  ASSERT_EQ(run.lines.size(), 200U);
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(run.lines[static_cast<std::size_t>(i)],
              R"({"id":)" + std::to_string(i) +
                  R"(,"envelope":{"outcome":{"code":"transaction_not_found","data":{}}}})");
  }
}

TEST(HostDriver, EventsCarryTheTransactionRecordVerbatim) {
  const DriverRun run = runDriver(lines({
      R"({"id":1,"call":"StartTransactionObserver"})",
      R"({"id":2,"store":"buyProduct","productID":"com.vorntesk.sample.removeads"})",
      R"({"id":3,"call":"GetUnfinishedTransactions"})",
  }));
  EXPECT_EQ(run.exitStatus, 0);
  std::string event;
  std::string listing;
  for (const auto& line : run.lines) {
    if (line.rfind(R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)", 0) == 0) event = line;
    if (line.rfind(R"({"id":3,)", 0) == 0) listing = line;
  }
  ASSERT_FALSE(event.empty()) << "no update event";
  const std::string prefix = R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)";
  const std::string payload = event.substr(prefix.size(), event.size() - prefix.size() - 1);
  const auto record = boost::json::parse(payload).as_object();
  EXPECT_EQ(record.at("productId").as_string(), "com.vorntesk.sample.removeads");
  // The unfinished listing holds the same record; the event carries it byte for byte.
  EXPECT_NE(listing.find(payload), std::string::npos) << listing;
  // The event a line causes is written before the next line is answered (it may come
  // before or after the answer of the line that caused it).
  ASSERT_EQ(run.lines.size(), 4U);
  EXPECT_EQ(run.lines[3], listing);
}

TEST(HostDriver, OptionsChooseTheSystemVersionAndTheConfiguration) {
  const std::string purchase =
      R"({"id":1,"call":"Purchase","payload":{"productId":"com.vorntesk.sample.coins100"}})" "\n";
  const DriverRun newer = runDriver(purchase);
  const DriverRun older = runDriver(purchase, {"--os-version", "17.1"});
  ASSERT_EQ(newer.lines.size(), 1U);
  ASSERT_EQ(older.lines.size(), 1U);
  EXPECT_NE(newer.lines[0].find(R"("appTransactionId")"), std::string::npos);
  EXPECT_EQ(older.lines[0].find(R"("appTransactionId")"), std::string::npos);
  EXPECT_NE(older.lines[0].find(R"("price":"0.99")"), std::string::npos);

  const DriverRun missing = runDriver("", {"--config", "/nonexistent/Store.storekit"});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.errors.find("/nonexistent/Store.storekit"), std::string::npos);
  EXPECT_EQ(runDriver("", {"--os-version", "seventeen"}).exitStatus, 2);
  EXPECT_EQ(runDriver("", {"--bogus"}).exitStatus, 2);
  const DriverRun help = runDriver("", {"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_GT(help.lines.size(), 40U);
}

}  // namespace
