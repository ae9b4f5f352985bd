// The driver's state file as its users meet it: the files it refuses to start on, each named
// in one line on standard error and left with the bytes it had, and commits that fail while
// it runs, answered as errors and leaving nothing in the file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <SQLiteCpp/Database.h>
#include <boost/json/parse.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/driver_process.h"
#include "support/notification_receiver.h"

namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using testsupport::DriverRun;
using testsupport::runDriver;
using testsupport::RunningDriver;

std::string purchaseLine(const std::string& id) {
  return R"({"id":)" + id +
         R"(,"call":"Purchase","payload":{"productId":"com.vorntesk.sample.coins100"}})";
}

// The transaction ids a GetAllTransactions answer lists, in its order; a Purchase's one.
std::vector<std::int64_t> listedIds(const std::string& answer) {
  const auto success = json::parse(answer).at("envelope").at("success");
  if (const auto* bought = success.as_object().if_contains("transaction")) {
    return {bought->at("id").to_number<std::int64_t>()};
  }
  std::vector<std::int64_t> ids;
  for (const auto& t : success.at("transactions").as_array())
    ids.push_back(t.at("id").to_number<std::int64_t>());
  return ids;
}

class StateFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "state_file_test.XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    // Other users may pass through, for the runs as one who cannot write here.
    fs::permissions(dir_, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // A ledger the driver made with `purchases` purchases, all of it in the file itself: a
  // driver that exits closes its ledger, which folds the write-ahead log into the file.
  fs::path ledger(const std::string& name, int purchases) {
    const auto path = dir_ / name;
    std::vector<std::string> input;
    for (int i = 1; i <= purchases; ++i) input.push_back(purchaseLine(std::to_string(i)));
    const DriverRun made = runDriver(input, "--state " + path.string());
    EXPECT_EQ(made.exitStatus, 0) << made.errors;
    EXPECT_FALSE(fs::exists(path.string() + "-wal")) << "the driver left its log beside " << path;
    SQLite::Database database(path.string(), SQLite::OPEN_READONLY);
    EXPECT_EQ(database.execAndGet("SELECT count(*) FROM transactions").getInt(), purchases);
    return path;
  }

  // The driver, run on `file` by `launcher`, refuses it with the one line `cause` on standard
  // error (for SQLite's own words, a `cause` ending in "(" or ": " is the line's start), and
  // the file keeps its bytes.
  void expectRefused(const fs::path& file, const std::string& cause,
                     const std::string& launcher = "") {
    SCOPED_TRACE(file.filename().string());
    const auto before = testsupport::readFile(file.string());
    const DriverRun run = runDriver({purchaseLine("1")}, "--state " + file.string(), launcher);
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_TRUE(run.lines.empty()) << run.lines.front().substr(0, 200);
    const std::string line = "vorntesk-storekit: state file " + file.string() + ": " + cause;
    if (cause.ends_with("(") || cause.ends_with(": ")) {
      EXPECT_TRUE(run.errors.starts_with(line)) << run.errors;
      EXPECT_EQ(run.errors.find('\n'), run.errors.size() - 1) << run.errors;
    } else {
      EXPECT_EQ(run.errors, line + "\n");
    }
    EXPECT_TRUE(testsupport::readFile(file.string()) == before) << "the file was changed";
  }

  fs::path dir_;
};

TEST_F(StateFileTest, EachRefusedFileIsNamedWithItsCauseAndKeepsItsBytes) {
  const auto text = dir_ / "notes.txt";
  std::ofstream(text) << "Shopping: milk, eggs, a StoreKit configuration\n";
  const auto foreign = dir_ / "notes.db";
  SQLite::Database(foreign.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
      .exec("PRAGMA application_id = 42; CREATE TABLE notes (text TEXT)");
  const auto cut = ledger("cut.db", 4);
  fs::resize_file(cut, fs::file_size(cut) / 2);
  const auto newer = ledger("newer.db", 1);
  SQLite::Database(newer.string(), SQLite::OPEN_READWRITE).exec("PRAGMA user_version = 99");
  const auto held = ledger("held.db", 1);
  RunningDriver holder({"--state", held.string()});
  ASSERT_EQ(holder.ask(R"({"id":1,"call":"GetStorefront"})"),
            R"({"id":1,"envelope":{"success":{"countryCode":"USA","identifier":"143441"}}})");

  expectRefused(text, "not a SQLite database");
  expectRefused(foreign, "a SQLite database of something else (application_id 42)");
  expectRefused(cut, "damaged (");
  expectRefused(newer, "schema version 99 is newer than this build's (4)");
  expectRefused(held, "in use by another process");
}

// As root, which permission bits do not stop, the driver could write anywhere: these run it as
// nobody (65534), for whom the directory is read-only.
TEST_F(StateFileTest, AReadOnlyDirectoryIsRefusedForANewFileAndForAnExistingLedger) {
  const std::string asNobody = "setpriv --reuid=65534 --regid=65534 --clear-groups";
  if (runDriver({}, "--help", asNobody).exitStatus != 0) {
    GTEST_SKIP() << "SKIPPED: cannot run the driver as user 65534 with setpriv (needs root, "
                    "util-linux's setpriv, and a build tree others may read), so the refusals "
                    "of a read-only directory were not checked";
  }
  const auto locked = dir_ / "locked";
  fs::create_directory(locked);
  fs::permissions(locked, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
  const auto existing = ledger("locked/existing.db", 1);
  ASSERT_EQ(::chown(existing.c_str(), 65534, 65534), 0);

  expectRefused(locked / "new.db", "cannot create: Permission denied", asNobody);
  EXPECT_FALSE(fs::exists(locked / "new.db"));
  // The file is writable but the write-ahead log beside it cannot be made.
  expectRefused(existing, "cannot open: ", asNobody);
}

// Writes past 200,000 bytes fail with EFBIG (SIGXFSZ ignored, so it does not kill the driver):
// the ledger opens and takes a few purchases, until its write-ahead log reaches the limit.
TEST_F(StateFileTest, APurchaseWhoseCommitFailsIsAnErrorAndLeavesNothingInTheFile) {
  const auto state = dir_ / "state.db";
  const std::string limited = R"(sh -c 'trap "" XFSZ; exec prlimit --fsize=200000 "$0" "$@"')";
  std::vector<std::string> input;
  constexpr int kPurchases = 40;
  for (int id = 1; id <= kPurchases; ++id) input.push_back(purchaseLine(std::to_string(id)));
  input.push_back(R"({"id":"storefront","call":"GetStorefront"})");
  input.push_back(R"({"id":"all","call":"GetAllTransactions"})");
  const DriverRun run = runDriver(input, "--state " + state.string(), limited);
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  ASSERT_EQ(run.lines.size(), kPurchases + 2u) << run.errors;

  const std::string failed =
      R"(,"envelope":{"error":{"code":"INTERNAL","message":"A StoreKit system error occurred.",)"
      R"("externalCode":"state file )" +
      state.string() + R"(: cannot commit: disk I/O error"}}})";
  std::vector<std::int64_t> bought;
  int failures = 0;
  for (int id = 1; id <= kPurchases; ++id) {
    const auto& line = run.lines[id - 1];
    if (line == R"({"id":)" + std::to_string(id) + failed) {
      ++failures;
    } else {
      const auto ids = listedIds(line);
      ASSERT_EQ(ids.size(), 1u) << line;
      bought.push_back(ids[0]);
    }
  }
  ASSERT_FALSE(bought.empty());
  EXPECT_GT(failures, 0);
  // The store goes on serving what it has.
  EXPECT_EQ(
      run.lines[kPurchases],
      R"({"id":"storefront","envelope":{"success":{"countryCode":"USA","identifier":"143441"}}})");
  EXPECT_EQ(listedIds(run.lines[kPurchases + 1]), bought);

  // Relaunched without the limit: the purchases answered with success and nothing else, and
  // the next purchase takes an id after theirs.
  const std::string all = R"({"id":"all","call":"GetAllTransactions"})";
  const DriverRun relaunched =
      runDriver({all, purchaseLine("\"next\""), all}, "--state " + state.string());
  EXPECT_EQ(relaunched.exitStatus, 0) << relaunched.errors;
  ASSERT_EQ(relaunched.lines.size(), 3u) << relaunched.errors;
  EXPECT_EQ(listedIds(relaunched.lines[0]), bought);
  const auto next = listedIds(relaunched.lines[1]).at(0);
  EXPECT_GT(next, bought.back());
  bought.push_back(next);
  EXPECT_EQ(listedIds(relaunched.lines[2]), bought);
}

// Notifications the store could not deliver before it was killed go out after the relaunch,
// the same notifications (same UUIDs), once their retry comes due.
TEST_F(StateFileTest, NotificationsQueuedWhenKilledAreDeliveredAfterTheRelaunch) {
  const auto state = (dir_ / "queued.db").string();
  testsupport::NotificationReceiver receiver;
  ASSERT_TRUE(receiver.listening());
  const auto url = receiver.url();
  receiver.answerWith(500);
  std::vector<std::string> queued;
  {
    RunningDriver driver({"--state", state, "--notifications-url", url});
    ASSERT_TRUE(driver.ask(purchaseLine("1")));
    ASSERT_TRUE(driver.ask(
        R"({"id":2,"store":"buyProduct","productID":"com.vorntesk.sample.pro.monthly"})"));
    ASSERT_EQ(receiver.waitFor(2).size(), 2u);
    const auto listed = driver.ask(R"({"id":3,"store":"notifications"})");
    ASSERT_TRUE(listed);
    const auto answer = json::parse(*listed);
    for (const auto& made : answer.at("notifications").as_array()) {
      queued.emplace_back(made.at("notificationUUID").as_string());
    }
    driver.kill();
  }
  ASSERT_EQ(queued.size(), 2u);
  receiver.answerWith(200);
  RunningDriver relaunched({"--state", state, "--notifications-url", url});
  ASSERT_TRUE(relaunched.ask(R"({"id":1,"store":"advanceTime","seconds":3600})"));
  const auto received = receiver.waitFor(4);
  ASSERT_EQ(received.size(), 4u);
  std::vector<std::string> delivered;
  for (std::size_t i = 2; i < received.size(); ++i) {
    delivered.emplace_back(received[i].at("notificationUUID").as_string());
  }
  std::sort(delivered.begin(), delivered.end());
  std::sort(queued.begin(), queued.end());
  EXPECT_EQ(delivered, queued);
}

}  // namespace
