// The driver with a state file, killed with SIGKILL at random instants of a mixed stream of
// purchases, finishes, refunds, ask-to-buy requests and approvals and clock moves, hundreds of
// times. After every restart, what the app was told is still so: each transaction it was
// handed is there with the same signed form, each finish stays, nothing appears twice, the
// unfinished ones arrive once through the observer, and every token verifies against the
// root the first launch exported.
#include <gtest/gtest.h>

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "storekit/jws.h"
#include "support/driver_process.h"

namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using testsupport::RunningDriver;

constexpr int kKills = 200;
constexpr auto kTestBudget = std::chrono::seconds(420);

std::string readFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::string derOfPEM(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (!certificate) return {};
  unsigned char* der = nullptr;
  const int length = i2d_X509(certificate, &der);
  std::string bytes(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
  OPENSSL_free(der);
  X509_free(certificate);
  return bytes;
}

const std::vector<std::string> kSubscriptions = {"com.vorntesk.sample.basic.monthly",
                                                 "com.vorntesk.sample.pro.monthly"};
const std::vector<std::string> kOneTimeProducts = {
    "com.vorntesk.sample.coins100", "com.vorntesk.sample.coins100", "com.vorntesk.sample.removeads",
    "com.vorntesk.sample.offlinemaps", "com.vorntesk.sample.seasonpass"};

// What the app has been told, across every launch.
struct Told {
  std::map<std::uint64_t, std::string> signedForms;  // id -> the last form the app was handed
  std::set<std::uint64_t> finished;
  std::set<std::uint64_t> consumables;
  std::set<std::uint64_t> subscriptions;
  // Ids whose signed form an operation sent in the last launch may have changed (a refund, an
  // upgrade, a renewal's expiry) without the app having been told the new one yet.
  std::set<std::uint64_t> mayHaveChanged;

  void handed(const json::object& transaction) {
    const auto id = transaction.at("id").to_number<std::uint64_t>();
    signedForms[id] = std::string(transaction.at("jwsRepresentation").as_string());
    const auto type = transaction.at("productType").to_number<int>();
    if (type == 1) consumables.insert(id);
    if (type == 3) subscriptions.insert(id);
  }
};

// The ledger as the relaunched driver reports it.
struct Snapshot {
  std::multiset<std::uint64_t> replayed;      // update events before the unfinished listing
  std::vector<std::uint64_t> unfinished;
  std::map<std::uint64_t, std::string> all;   // GetAllTransactions: id -> signed form
  std::vector<std::uint64_t> allIDs;
  std::map<std::uint64_t, json::object> store;  // the store's own listing, finished consumables too
  std::vector<std::uint64_t> storeIDs;
};

const std::string kEventPrefix = R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)";

std::optional<json::object> eventPayload(const std::string& line) {
  if (line.rfind(kEventPrefix, 0) != 0) return std::nullopt;
  return json::parse(line.substr(kEventPrefix.size(), line.size() - kEventPrefix.size() - 1))
      .as_object();
}

std::optional<json::value> answer(const std::vector<std::string>& lines, const std::string& id) {
  for (const auto& line : lines) {
    if (line.rfind(R"({"id":")" + id + R"(",)", 0) == 0) return json::parse(line);
  }
  return std::nullopt;
}

Snapshot readSnapshot(const std::vector<std::string>& lines) {
  Snapshot snapshot;
  for (const auto& line : lines) {
    if (line.rfind(R"({"id":"unfinished",)", 0) == 0) break;
    if (const auto event = eventPayload(line)) {
      snapshot.replayed.insert(event->at("id").to_number<std::uint64_t>());
    }
  }
  const auto unfinished = answer(lines, "unfinished"), all = answer(lines, "all"),
             store = answer(lines, "ledger");
  for (const auto& record : unfinished->at("envelope").at("success").at("transactions").as_array()) {
    snapshot.unfinished.push_back(record.at("id").to_number<std::uint64_t>());
  }
  for (const auto& record : all->at("envelope").at("success").at("transactions").as_array()) {
    const auto id = record.at("id").to_number<std::uint64_t>();
    snapshot.allIDs.push_back(id);
    snapshot.all[id] = std::string(record.at("jwsRepresentation").as_string());
  }
  for (const auto& entry : store->at("transactions").as_array()) {
    const auto id = entry.at("identifier").to_number<std::uint64_t>();
    snapshot.storeIDs.push_back(id);
    snapshot.store[id] = entry.as_object();
  }
  return snapshot;
}

TEST(CrashTest, KilledAtRandomInstantsTheStoreKeepsWhatItToldTheApp) {
  const fs::path dir = fs::temp_directory_path() / ("vorntesk-crash-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  const std::vector<std::string> arguments = {
      "--config", VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit", "--state",
      (dir / "state.db").string(), "--export-root", (dir / "root.pem").string()};
  const auto seed = static_cast<unsigned>(std::random_device{}());
  std::mt19937 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed) + "; driver errors in " +
               (dir / "driver-errors.txt").string());
  const auto pick = [&](int below) {
    return std::uniform_int_distribution<int>(0, below - 1)(random);
  };

  Told told;
  std::string rootDER;
  std::set<std::string> verified;
  std::set<std::uint64_t> pendingRequests;
  const auto started = Clock::now();
  int kills = 0, checkedLaunches = 0, answeredOperations = 0;
  for (; kills < kKills && Clock::now() - started < kTestBudget; ++kills) {
    RunningDriver driver(arguments, (dir / "driver-errors.txt").string());
    // One launch in eight is killed while it opens the file and starts.
    if (pick(8) == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(pick(20000)));
      continue;
    }
    driver.send(R"({"id":"start","call":"StartTransactionObserver"})");
    driver.send(R"({"id":"unfinished","call":"GetUnfinishedTransactions"})");
    driver.send(R"({"id":"all","call":"GetAllTransactions"})");
    driver.send(R"({"id":"ledger","store":"allTransactions"})");
    ASSERT_TRUE(driver.waitForAnswer("ledger")) << "launch " << kills << " did not answer";
    const auto snapshot = readSnapshot(driver.lines());
    ++checkedLaunches;

    // The same root at every launch, and every token verifies against it.
    const auto pem = readFile(dir / "root.pem");
    if (rootDER.empty()) rootDER = derOfPEM(pem);
    ASSERT_EQ(derOfPEM(pem), rootDER) << "the root changed at launch " << kills;
    for (const auto& [id, jws] : snapshot.all) {
      if (!verified.insert(jws).second) continue;
      EXPECT_NO_THROW(storekit::verifyJWS(jws, rootDER)) << "transaction " << id;
    }
    // No id twice, in either listing.
    EXPECT_EQ(std::set(snapshot.allIDs.begin(), snapshot.allIDs.end()).size(), snapshot.allIDs.size());
    EXPECT_EQ(std::set(snapshot.storeIDs.begin(), snapshot.storeIDs.end()).size(),
              snapshot.storeIDs.size());
    // The unfinished ones arrive once each through the observer, and nothing else does.
    EXPECT_EQ(snapshot.replayed,
              std::multiset(snapshot.unfinished.begin(), snapshot.unfinished.end()))
        << "at launch " << kills;
    // Every transaction the app was handed is there, with the form it was handed unless an
    // operation cut short may have changed it; a finished consumable is in the store's listing.
    for (const auto& [id, jws] : told.signedForms) {
      const auto store = snapshot.store.find(id);
      ASSERT_NE(store, snapshot.store.end()) << "transaction " << id << " lost at launch " << kills;
      const bool finishedConsumable = told.consumables.contains(id) &&
                                      store->second.at("finished").as_bool();
      if (finishedConsumable) continue;
      const auto listed = snapshot.all.find(id);
      ASSERT_NE(listed, snapshot.all.end()) << "transaction " << id << " not in GetAllTransactions";
      if (!told.mayHaveChanged.contains(id)) {
        EXPECT_EQ(listed->second, jws) << "transaction " << id << " at launch " << kills;
      }
    }
    for (const auto id : told.finished) {
      EXPECT_TRUE(snapshot.store.at(id).at("finished").as_bool()) << "finish of " << id << " lost";
    }
    if (HasFailure()) break;

    // What the app knows from here on is what this launch reports.
    for (const auto& [id, jws] : snapshot.all) told.signedForms[id] = jws;
    told.mayHaveChanged.clear();
    pendingRequests.clear();
    std::vector<std::uint64_t> unfinished = snapshot.unfinished, refundable;
    for (const auto& [id, entry] : snapshot.store) {
      if (entry.at("pendingAskToBuyConfirmation").as_bool()) pendingRequests.insert(id);
      if (!entry.at("revoked").as_bool() && entry.at("state") == "purchased") refundable.push_back(id);
    }

    // The mixed stream, sent without waiting; the kill lands somewhere in it.
    std::map<std::string, std::string> operations;  // id -> what it does
    // An upgrade or a renewal signs the subscription before it again, a renewal made in this
    // very launch included.
    bool subscriptionsMayChange = false;
    const int count = 1 + pick(12);
    for (int n = 0; n < count; ++n) {
      const std::string id = "op" + std::to_string(n);
      const int kind = pick(20);
      std::string line;
      if (kind < 7) {
        line = R"({"id":")" + id + R"(","call":"Purchase","payload":{"productId":")" +
               kOneTimeProducts[static_cast<std::size_t>(pick(5))] + R"("}})";
      } else if (kind < 10) {
        line = R"({"id":")" + id + R"(","call":"Purchase","payload":{"productId":")" +
               kSubscriptions[static_cast<std::size_t>(pick(2))] + R"("}})";
        subscriptionsMayChange = true;
      } else if (kind < 14 && !unfinished.empty()) {
        const auto target = unfinished[static_cast<std::size_t>(pick(static_cast<int>(unfinished.size())))];
        line = R"({"id":")" + id + R"(","call":"FinishTransaction","payload":{"transactionId":)" +
               std::to_string(target) + "}}";
      } else if (kind < 16 && !refundable.empty()) {
        const auto target = refundable[static_cast<std::size_t>(pick(static_cast<int>(refundable.size())))];
        line = R"({"id":")" + id + R"(","store":"refundTransaction","identifier":)" +
               std::to_string(target) + "}";
        told.mayHaveChanged.insert(target);
      } else if (kind < 17) {
        operations[id + "-on"] = R"({"id":")" + id + R"(-on","store":"askToBuyEnabled","value":true})";
        driver.send(operations[id + "-on"]);
        line = R"({"id":")" + id + R"(","call":"Purchase","payload":{"productId":")" +
               kOneTimeProducts[static_cast<std::size_t>(pick(5))] + R"("}})";
        operations[id + "-off"] = R"({"id":")" + id + R"(-off","store":"askToBuyEnabled","value":false})";
      } else if (kind < 19 && !pendingRequests.empty()) {
        const auto target = *pendingRequests.begin();
        pendingRequests.erase(target);
        line = R"({"id":")" + id + R"(","store":"approveAskToBuyTransaction","identifier":)" +
               std::to_string(target) + "}";
        told.mayHaveChanged.insert(target);
      } else {
        line = R"({"id":")" + id + R"(","store":"advanceTime","seconds":2678400})";
        subscriptionsMayChange = true;
      }
      driver.send(line);
      if (const auto off = operations.find(id + "-off"); off != operations.end()) {
        driver.send(off->second);
      }
      operations[id] = line;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(pick(30000)));
    driver.kill();

    // What the app was told before the kill: the transactions handed to it in answers and
    // events, and the finishes answered with success.
    const auto lines = driver.lines();
    for (const auto& line : lines) {
      if (const auto event = eventPayload(line)) {
        told.handed(*event);
        continue;
      }
      const auto parsed = json::parse(line).as_object();
      const auto id = std::string(parsed.at("id").as_string());
      if (!id.starts_with("op")) continue;
      ++answeredOperations;
      const auto* envelope = parsed.if_contains("envelope");
      const auto* success = envelope ? envelope->as_object().if_contains("success") : nullptr;
      if (!success) continue;
      const auto sent = json::parse(operations.at(id)).as_object();
      if (sent.at("call") == "Purchase") {
        told.handed(success->at("transaction").as_object());
      } else if (sent.at("call") == "FinishTransaction") {
        told.finished.insert(sent.at("payload").at("transactionId").to_number<std::uint64_t>());
      }
    }
    if (subscriptionsMayChange) {
      told.mayHaveChanged.insert(told.subscriptions.begin(), told.subscriptions.end());
    }
  }
  if (HasFailure()) return;
  EXPECT_EQ(kills, kKills) << "the time budget ran out";
  // The stream did real work: most launches were checked and most transactions kept.
  EXPECT_GT(checkedLaunches, kKills / 2);
  EXPECT_GT(told.signedForms.size(), 30u);
  EXPECT_GT(told.finished.size(), 3u);
  std::printf("%d kills, %d launches checked, %d operations answered, %zu transactions, seed %u\n",
              kills, checkedLaunches, answeredOperations, told.signedForms.size(), seed);
  if (!HasFailure()) fs::remove_all(dir);
}

}  // namespace
