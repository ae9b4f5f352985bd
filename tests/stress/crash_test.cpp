// The driver with a state file, killed with SIGKILL at random instants of a mixed stream of
// purchases, finishes, refunds, ask-to-buy requests and approvals and clock moves, hundreds of
// times. After every restart, what the app was told is still so: each transaction it was
// handed is there with the same signed form, each finish stays, nothing appears twice, the
// unfinished ones arrive once through the observer, and every token verifies against the
// root the first launch exported.
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/base64.h"
#include "storekit/jws.h"
#include "support/driver_process.h"

namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using Clock = std::chrono::steady_clock;
using Id = std::uint64_t;

constexpr int kKills = 200;
constexpr auto kTestBudget = std::chrono::seconds(420);
const std::vector<std::string> kSubscriptions = {"com.vorntesk.sample.basic.monthly",
                                                 "com.vorntesk.sample.pro.monthly"};
const std::vector<std::string> kOneTimeProducts = {
    "com.vorntesk.sample.coins100", "com.vorntesk.sample.coins100", "com.vorntesk.sample.removeads",
    "com.vorntesk.sample.offlinemaps", "com.vorntesk.sample.seasonpass"};
const std::string kEventPrefix =
    R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)";

// The certificate a PEM file holds, as DER: its base64 body.
std::string derOfPEM(std::string pem) {
  for (std::string_view armour :
       {"-----BEGIN CERTIFICATE-----", "-----END CERTIFICATE-----", "\n"}) {
    for (std::size_t at; (at = pem.find(armour)) != std::string::npos;)
      pem.erase(at, armour.size());
  }
  return platform::base64Decode(pem).value_or("");
}

// What the app has been told, across every launch.
struct Told {
  std::map<Id, std::string> signedForms;  // id -> the last form the app was handed
  std::set<Id> finished, consumables, subscriptions;
  // Ids whose signed form an operation sent in the last launch may have changed (a refund, an
  // upgrade, a renewal's expiry) without the app having been told the new one yet.
  std::set<Id> mayHaveChanged;

  void handed(const json::value& transaction) {
    const auto id = transaction.at("id").to_number<Id>();
    signedForms[id] = std::string(transaction.at("jwsRepresentation").as_string());
    const auto type = transaction.at("productType").to_number<int>();
    if (type == 1) consumables.insert(id);
    if (type == 3) subscriptions.insert(id);
  }
};

std::optional<json::value> eventPayload(const std::string& line) {
  if (!line.starts_with(kEventPrefix)) return std::nullopt;
  return json::parse(line.substr(kEventPrefix.size(), line.size() - kEventPrefix.size() - 1));
}

// The ledger as the relaunched driver reports it.
struct Snapshot {
  std::multiset<Id> replayed;  // update events before the unfinished listing
  std::vector<Id> unfinished, allIDs, storeIDs;
  std::map<Id, std::string> all;     // GetAllTransactions: id -> signed form
  std::map<Id, json::object> store;  // the store's own listing, finished consumables too

  explicit Snapshot(const std::vector<std::string>& lines) {
    std::map<std::string, json::value> answers;
    for (const auto& line : lines) {
      if (const auto event = eventPayload(line); event && !answers.contains("unfinished")) {
        replayed.insert(event->at("id").to_number<Id>());
      } else if (!event) {
        const auto answer = json::parse(line);
        answers[std::string(answer.at("id").as_string())] = answer;
      }
    }
    const auto listed = [&](const char* id) {
      return answers[id].at("envelope").at("success").at("transactions").as_array();
    };
    for (const auto& record : listed("unfinished"))
      unfinished.push_back(record.at("id").to_number<Id>());
    for (const auto& record : listed("all")) {
      allIDs.push_back(record.at("id").to_number<Id>());
      all[allIDs.back()] = std::string(record.at("jwsRepresentation").as_string());
    }
    for (const auto& entry : answers["ledger"].at("transactions").as_array()) {
      storeIDs.push_back(entry.at("identifier").to_number<Id>());
      store[storeIDs.back()] = entry.as_object();
    }
  }
};

template <class Ids>
bool noneTwice(const Ids& ids) {
  return std::set(ids.begin(), ids.end()).size() == ids.size();
}

TEST(CrashTest, KilledAtRandomInstantsTheStoreKeepsWhatItToldTheApp) {
  const fs::path dir = fs::temp_directory_path() / ("vorntesk-crash-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  const std::vector<std::string> arguments = {
      "--config",      VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit",
      "--state",       (dir / "state.db").string(),
      "--export-root", (dir / "root.pem").string()};
  const auto seed = static_cast<unsigned>(std::random_device{}());
  std::mt19937 random(seed);
  const auto errors = (dir / "driver-errors.txt").string();
  SCOPED_TRACE("seed " + std::to_string(seed) + "; driver errors in " + errors);
  const auto pick = [&](int below) {
    return std::uniform_int_distribution<int>(0, below - 1)(random);
  };
  const auto pickFrom = [&](const auto& items) {
    return items[pick(static_cast<int>(items.size()))];
  };

  Told told;
  std::string rootDER;
  std::set<std::string> verified;
  const auto started = Clock::now();
  int kills = 0, checkedLaunches = 0, answeredOperations = 0;
  for (; kills < kKills && Clock::now() - started < kTestBudget; ++kills) {
    testsupport::RunningDriver driver(arguments, errors);
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
    const Snapshot snapshot(driver.lines());
    ++checkedLaunches;

    // The same root at every launch, and every token verifies against it.
    const auto der = derOfPEM(testsupport::readFile((dir / "root.pem").string()));
    if (rootDER.empty()) rootDER = der;
    ASSERT_EQ(der, rootDER) << "the root changed at launch " << kills;
    for (const auto& [id, jws] : snapshot.all) {
      if (verified.insert(jws).second) {
        EXPECT_NO_THROW(storekit::verifyJWS(jws, rootDER)) << "transaction " << id;
      }
    }
    EXPECT_TRUE(noneTwice(snapshot.allIDs) && noneTwice(snapshot.storeIDs))
        << "at launch " << kills;
    // The unfinished ones arrive once each through the observer, and nothing else does.
    EXPECT_EQ(snapshot.replayed,
              std::multiset(snapshot.unfinished.begin(), snapshot.unfinished.end()))
        << "at launch " << kills;
    // Every transaction the app was handed is there, with the form it was handed unless an
    // operation cut short may have changed it; a finished consumable is in the store's listing.
    for (const auto& [id, jws] : told.signedForms) {
      const auto store = snapshot.store.find(id);
      ASSERT_NE(store, snapshot.store.end()) << "transaction " << id << " lost at launch " << kills;
      if (told.consumables.contains(id) && store->second.at("finished").as_bool()) continue;
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
    std::vector<Id> pendingRequests, refundable;
    for (const auto& [id, entry] : snapshot.store) {
      if (entry.at("pendingAskToBuyConfirmation").as_bool()) pendingRequests.push_back(id);
      if (!entry.at("revoked").as_bool() && entry.at("state") == "purchased")
        refundable.push_back(id);
    }

    // The mixed stream, sent without waiting; the kill lands somewhere in it. An upgrade or a
    // renewal signs the subscription before it again, a renewal made in this launch included.
    std::map<std::string, json::value> operations;  // id -> what was sent
    bool subscriptionsMayChange = false;
    const int count = 1 + pick(12);
    for (int n = 0; n < count; ++n) {
      const std::string id = "op" + std::to_string(n);
      const auto send = [&](const std::string& key, const std::string& members) {
        const auto line = R"({"id":")" + key + R"(",)" + members + "}";
        operations[key] = json::parse(line);
        driver.send(line);
      };
      const auto purchase = [&](const std::string& product) {
        send(id, R"("call":"Purchase","payload":{"productId":")" + product + R"("})");
      };
      const int kind = pick(20);
      if (kind < 7) {
        purchase(pickFrom(kOneTimeProducts));
      } else if (kind < 10) {
        purchase(pickFrom(kSubscriptions));
        subscriptionsMayChange = true;
      } else if (kind < 14 && !snapshot.unfinished.empty()) {
        send(id, R"("call":"FinishTransaction","payload":{"transactionId":)" +
                     std::to_string(pickFrom(snapshot.unfinished)) + "}");
      } else if (kind < 16 && !refundable.empty()) {
        const auto target = pickFrom(refundable);
        send(id, R"("store":"refundTransaction","identifier":)" + std::to_string(target));
        told.mayHaveChanged.insert(target);
      } else if (kind < 17) {
        send(id + "-on", R"("store":"askToBuyEnabled","value":true)");
        purchase(pickFrom(kOneTimeProducts));
        send(id + "-off", R"("store":"askToBuyEnabled","value":false)");
      } else if (kind < 19 && !pendingRequests.empty()) {
        const auto target = pendingRequests.back();
        pendingRequests.pop_back();
        send(id, R"("store":"approveAskToBuyTransaction","identifier":)" + std::to_string(target));
        told.mayHaveChanged.insert(target);
      } else {
        send(id, R"("store":"advanceTime","seconds":2678400)");
        subscriptionsMayChange = true;
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(pick(30000)));
    driver.kill();

    // What the app was told before the kill: the transactions handed to it in answers and
    // events, and the finishes answered with success.
    for (const auto& line : driver.lines()) {
      if (const auto event = eventPayload(line)) {
        told.handed(*event);
        continue;
      }
      const auto answer = json::parse(line).as_object();
      const auto id = std::string(answer.at("id").as_string());
      if (!id.starts_with("op")) continue;
      ++answeredOperations;
      const auto* envelope = answer.if_contains("envelope");
      const auto* success = envelope ? envelope->as_object().if_contains("success") : nullptr;
      if (!success) continue;
      const auto& sent = operations.at(id);
      if (sent.at("call") == "Purchase") told.handed(success->at("transaction"));
      if (sent.at("call") == "FinishTransaction") {
        told.finished.insert(sent.at("payload").at("transactionId").to_number<Id>());
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
