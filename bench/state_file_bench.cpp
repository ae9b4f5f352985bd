// P6, durable purchases: "Purchase" calls through the service (the dispatcher, the default
// adapter, the device's verification), one at a time as an app makes them, against a store
// whose ledger is a state file beside the same against a store whose ledger is in memory.
// Figure: purchases per second with the file / the same in memory.
//
// P7, relaunch: a state file of 100,000 transactions (about 90 MB, most of it payloads and
// signatures; the certificate chain is kept once), built once per run under the output folder. Timed: LocalStore::open of the file,
// the store installed as the process's store, then "GetCurrentEntitlements" through the
// dispatcher until its answer is back; closing the store is not timed. Its floor: a bare
// SQLite scan of the same file's transactions table through the C API (open, every row,
// every column read, close). Figure: relaunch time / scan time. Beside it, the memory the
// relaunch takes: in fresh child processes (this program with --relaunch-child=FILE), the
// peak resident growth from before the open until the answer is back; the median of five.
#include "bench_support.h"

#include "appstore/local_store.h"
#include "appstore/store_configuration.h"
#include "bridge/register_service.h"
#include "host/tesk_bridge_dispatcher.h"
#include "platform/uuid.h"

#include <sqlite3.h>
#include <boost/json.hpp>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace json = boost::json;
using appstore::LocalStore;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::size_t kRelaunchTransactions = 100'000;
constexpr int kMemoryChildren = 5;
const std::string kService = "AppleStoreKitService";
const std::string kCoins = "com.vorntesk.sample.coins100";
const std::string kRemoveAds = "com.vorntesk.sample.removeads";
const std::string kSeasonPass = "com.vorntesk.sample.seasonpass";
const std::string kProMonthly = "com.vorntesk.sample.pro.monthly";
const std::string kPurchasePayload = R"({"productId":")" + kCoins + R"("})";

std::string sampleConfigurationPath() {
  return std::string(VORNTESK_SOURCE_DIR) + "/examples/SampleStore.storekit";
}

// One call through the host's dispatcher; the answer's envelope. The promise is shared with
// the completion, so that an answer coming after the wait gave up has somewhere to go.
std::string call(const std::string& method, const std::string& payload) {
  auto answer = std::make_shared<std::promise<std::string>>();
  auto future = answer->get_future();
  vorn::tesk::TeskBridgeDispatcher::shared().callAsync(
      kService, method, payload,
      [answer](std::string envelope) { answer->set_value(std::move(envelope)); });
  if (future.wait_for(60s) != std::future_status::ready) {
    throw std::runtime_error(method + " gave no answer within a minute");
  }
  return future.get();
}

// The transactions of a successful answer ({"success":{"transactions":[…]}} or
// {"success":{"transaction":{…}}}), each checked to be verified; throws otherwise.
std::vector<std::uint64_t> verifiedIds(const std::string& envelope) {
  json::error_code ec;
  const auto document = json::parse(envelope, ec);
  const auto* success =
      ec || !document.is_object() ? nullptr : document.as_object().if_contains("success");
  if (success == nullptr || !success->is_object()) {
    throw std::runtime_error("not a successful answer: " + envelope.substr(0, 200));
  }
  std::vector<const json::value*> records;
  if (const auto* list = success->as_object().if_contains("transactions");
      list && list->is_array()) {
    for (const auto& record : list->as_array()) records.push_back(&record);
  } else if (const auto* one = success->as_object().if_contains("transaction")) {
    records.push_back(one);
  }
  std::vector<std::uint64_t> ids;
  for (const auto* record : records) {
    // AppleVerificationStatus.verified is 1.
    if (!record->is_object() || record->at("verificationStatus").to_number<int>() != 1) {
      throw std::runtime_error("an unverified transaction in: " + envelope.substr(0, 200));
    }
    ids.push_back(record->at("id").to_number<std::uint64_t>());
  }
  return ids;
}

// Waits (at most ten seconds) until nothing holds the store any more, so that its state
// file is closed and free for the next owner.
void release(std::shared_ptr<LocalStore>& store) {
  std::weak_ptr<LocalStore> gone = store;
  LocalStore::setShared(nullptr);
  store.reset();
  const auto deadline = Clock::now() + 10s;
  while (!gone.expired() && Clock::now() < deadline) std::this_thread::sleep_for(1ms);
  if (!gone.expired()) throw std::runtime_error("the store was still held ten seconds after use");
}

void removeStateFile(const std::string& path) {
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path + suffix);
}

// --- The 100,000-transaction file ---------------------------------------------------------

// What the relaunch must answer: the ids "GetCurrentEntitlements" lists.
struct RelaunchFile {
  std::string path;
  std::set<std::uint64_t> entitlements;
};

// Four real purchases through the store give the payloads; the rest are clones of them with
// new ids, each signed by the store and committed through its own API, as a long-used account
// would have them: six in ten consumables, three in ten renewals of the one subscription,
// one in ten earlier season passes. The clones are dated before the real purchases, so the
// entitlements are the real non-consumable, season pass and subscription.
RelaunchFile buildRelaunchFile(const std::string& out) {
  RelaunchFile file{out + "/relaunch-100k.state", {}};
  removeStateFile(file.path);
  const auto started = Clock::now();
  auto store =
      LocalStore::open(file.path, appstore::StoreConfiguration::load(sampleConfigurationPath()));
  std::vector<std::string> order{kCoins, kRemoveAds, kSeasonPass, kProMonthly};
  std::map<std::string, json::object> templates;
  std::uint64_t lastRealID = 0;
  for (const auto& product : order) {
    const auto made = store->buyProduct(product);
    templates[product] = json::parse(*store->signedPayload(made.id)).as_object();
    if (product != kCoins) file.entitlements.insert(made.id);
    lastRealID = std::max(lastRealID, made.id);
  }
  const std::uint64_t firstID = lastRealID + 1;
  for (std::size_t i = 0; i < kRelaunchTransactions - order.size(); ++i) {
    const std::size_t kind = i % 10;
    const std::string& product = kind < 6 ? kCoins : kind < 9 ? kProMonthly : kSeasonPass;
    json::object payload = templates[product];
    const std::string id = std::to_string(firstID + i);
    payload["transactionId"] = id;
    if (product != kProMonthly) payload["originalTransactionId"] = id;
    // A second apart, the newest a second before the real purchases.
    const auto shift = static_cast<std::int64_t>(kRelaunchTransactions - i) * 1000;
    payload["purchaseDate"] = payload.at("purchaseDate").as_int64() - shift;
    if (auto* expires = payload.if_contains("expiresDate")) *expires = expires->as_int64() - shift;
    store->insertTransaction(std::move(payload));
  }
  const auto count = store->allTransactions().size();
  release(store);
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  if (count != kRelaunchTransactions) {
    throw std::runtime_error("the relaunch file holds " + std::to_string(count) + " transactions");
  }
  std::printf("relaunch file: %zu transactions, %.1f MB, built in %.1f s\n", count,
              static_cast<double>(std::filesystem::file_size(file.path)) / 1e6, seconds);
  return file;
}

RelaunchFile gRelaunch;

// Open to the first answer; throws when the answer is not the file's entitlements.
void relaunchOnce(const RelaunchFile& file, const appstore::StoreConfiguration& configuration) {
  auto store = LocalStore::open(file.path, configuration);
  LocalStore::setShared(store);
  const auto ids = verifiedIds(call("GetCurrentEntitlements", "{}"));
  if (std::set<std::uint64_t>(ids.begin(), ids.end()) != file.entitlements ||
      ids.size() != file.entitlements.size()) {
    throw std::runtime_error("the relaunched store answered other entitlements");
  }
}

// --- P6 ------------------------------------------------------------------------------------

std::shared_ptr<LocalStore> gFileStore;
std::shared_ptr<LocalStore> gMemoryStore;

void purchases(benchmark::State& state, const std::shared_ptr<LocalStore>& store) {
  LocalStore::setShared(store);
  // Each repetition starts from an empty history, so the file does not grow through the run.
  store->clearTransactions();
  for (auto _ : state) {
    const auto ids = verifiedIds(call("Purchase", kPurchasePayload));
    if (ids.size() != 1) {
      state.SkipWithError("a purchase answered no transaction");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void Purchase_StateFile(benchmark::State& state) { purchases(state, gFileStore); }
void Purchase_InMemory(benchmark::State& state) { purchases(state, gMemoryStore); }

// --- P7 ------------------------------------------------------------------------------------

void Relaunch_OpenToEntitlements(benchmark::State& state) {
  static const auto configuration = appstore::StoreConfiguration::load(sampleConfigurationPath());
  for (auto _ : state) {
    const auto started = Clock::now();
    std::string failure;
    try {
      relaunchOnce(gRelaunch, configuration);
    } catch (const std::exception& error) {
      failure = error.what();
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - started).count());
    auto store = LocalStore::setShared(nullptr);
    release(store);
    if (!failure.empty()) {
      state.SkipWithError(failure.c_str());
      break;
    }
  }
}

// Every row of the transactions table, every column read as its type.
void Floor_SQLiteScan(benchmark::State& state) {
  for (auto _ : state) {
    const auto started = Clock::now();
    sqlite3* database = nullptr;
    std::size_t rows = 0;
    std::int64_t sum = 0;
    if (sqlite3_open_v2(gRelaunch.path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr) ==
        SQLITE_OK) {
      sqlite3_stmt* scan = nullptr;
      if (sqlite3_prepare_v2(database, "SELECT * FROM transactions", -1, &scan, nullptr) ==
          SQLITE_OK) {
        const int columns = sqlite3_column_count(scan);
        while (sqlite3_step(scan) == SQLITE_ROW) {
          for (int c = 0; c < columns; ++c) {
            if (sqlite3_column_type(scan, c) == SQLITE_TEXT) {
              sum += sqlite3_column_bytes(scan, c) + *sqlite3_column_text(scan, c);
            } else {
              sum += sqlite3_column_int64(scan, c);
            }
          }
          ++rows;
        }
      }
      sqlite3_finalize(scan);
    }
    sqlite3_close(database);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - started).count());
    benchmark::DoNotOptimize(sum);
    if (rows != kRelaunchTransactions) {
      state.SkipWithError("the scan did not read every transaction");
      break;
    }
  }
}

void configurePurchases(benchmark::internal::Benchmark* b) {
  b->Repetitions(15)->ReportAggregatesOnly(true)->MinTime(0.5)->UseRealTime()->Unit(
      benchmark::kMicrosecond);
}

void configureRelaunch(benchmark::internal::Benchmark* b) {
  b->Repetitions(11)->ReportAggregatesOnly(true)->Iterations(3)->UseManualTime()->Unit(
      benchmark::kMillisecond);
}

BENCHMARK(Purchase_StateFile)->Apply(configurePurchases);
BENCHMARK(Purchase_InMemory)->Apply(configurePurchases);
BENCHMARK(Relaunch_OpenToEntitlements)->Apply(configureRelaunch);
BENCHMARK(Floor_SQLiteScan)->Apply(configureRelaunch);

// --- P7, memory ------------------------------------------------------------------------------

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM").
long statusKiB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, field.size() + 1, field + ":") == 0)
      return std::stol(line.substr(field.size() + 1));
  }
  return -1;
}

// In a fresh process: the code and the threads brought in by one answer from a store in
// memory, that store closed, freed memory handed back, the peak reset to the resident size;
// then the relaunch. Prints "<resident before> <peak> <resident after>" in KiB.
int relaunchChild(const std::string& path, const std::string& entitlements) {
  const auto configuration = appstore::StoreConfiguration::load(sampleConfigurationPath());
  auto warmUp = LocalStore::create(configuration);
  LocalStore::setShared(warmUp);
  Vorn_Tesk_AppleStoreKitService_Register();
  (void)verifiedIds(call("GetCurrentEntitlements", "{}"));
  release(warmUp);
  RelaunchFile file{path, {}};
  std::istringstream ids(entitlements);
  for (std::uint64_t id = 0; ids >> id;) file.entitlements.insert(id);

  malloc_trim(0);
  const long before = statusKiB("VmRSS");
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  if (!clear) {
    std::cout << "error: /proc/self/clear_refs cannot reset the peak\n";
    return 0;
  }
  relaunchOnce(file, configuration);
  const long peak = statusKiB("VmHWM");
  std::cout << before << " " << peak << " " << statusKiB("VmRSS") << "\n";
  return 0;
}

// The median over fresh children of the peak growth, in MB; nothing (and why) on failure.
std::optional<double> relaunchMemory(const RelaunchFile& file, std::string& problem) {
  char self[4096] = {};
  if (::readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
    problem = "cannot find its own program";
    return std::nullopt;
  }
  std::string command = "'";
  command.append(self).append("' '--relaunch-child=").append(file.path).append("'");
  for (const auto id : file.entitlements) command.append(" ").append(std::to_string(id));
  std::vector<double> growths;
  for (int i = 0; i < kMemoryChildren; ++i) {
    const auto line = bench::childAnswer(command, problem);
    if (!line) return std::nullopt;
    std::istringstream fields(*line);
    long before = 0;
    long peak = 0;
    long after = 0;
    if (!(fields >> before >> peak >> after)) {
      problem = *line;
      return std::nullopt;
    }
    growths.push_back(static_cast<double>(peak - before) * 1024.0 / 1e6);
    std::printf(
        "relaunch child %d: resident %ld KiB before, peak %ld KiB, %ld KiB after -> %.1f MB\n",
        i + 1, before, peak, after, growths.back());
  }
  std::sort(growths.begin(), growths.end());
  return growths[growths.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  constexpr std::string_view kChildFlag = "--relaunch-child=";
  if (argc > 1 && std::string_view(argv[1]).starts_with(kChildFlag)) {
    std::string entitlements;
    for (int i = 2; i < argc; ++i) entitlements.append(argv[i]).append(" ");
    try {
      return relaunchChild(std::string(argv[1]).substr(kChildFlag.size()), entitlements);
    } catch (const std::exception& error) {
      std::cout << "error: " << error.what() << "\n";
      return 1;
    }
  }
  const std::string out = bench::outputDirectory(argc, argv);
  const auto configuration = appstore::StoreConfiguration::load(sampleConfigurationPath());
  const std::string purchaseFile = out + "/purchases.state";
  removeStateFile(purchaseFile);
  gFileStore = LocalStore::open(purchaseFile, configuration);
  gMemoryStore = LocalStore::create(configuration);
  LocalStore::setShared(gMemoryStore);
  Vorn_Tesk_AppleStoreKitService_Register();

  gRelaunch = buildRelaunchFile(out);
  std::string problem;
  const auto memory = relaunchMemory(gRelaunch, problem);
  if (!memory) std::cout << "state_file_bench: no relaunch memory figure (" << problem << ")\n";

  const int status =
      bench::runBenchmarks(argc, argv, "state_file_bench", [&](const bench::Medians& m) {
        using bench::medianCounter;
        using bench::medianNanoseconds;
        return std::vector<bench::Figure>{
            {"p6_durable_purchase_ratio",
             medianCounter(m, "Purchase_StateFile", "items_per_second") /
                 medianCounter(m, "Purchase_InMemory", "items_per_second"),
             "x", ""},
            {"p7_relaunch_ratio",
             medianNanoseconds(m, "Relaunch_OpenToEntitlements") /
                 medianNanoseconds(m, "Floor_SQLiteScan"),
             "x", ""},
            {"p7_relaunch_rss_mb", memory, "MB", memory ? "" : problem},
        };
      });
  // The purchases' file is closed as an app closes it.
  LocalStore::setShared(nullptr);
  gFileStore.reset();
  gMemoryStore.reset();
  return status;
}
