// A device relaunched on a state file: the same signing identity, ids that continue, the
// unfinished transactions yielded once by the first updates sequence, pending requests that
// can still be approved, and renewals that came due while nothing ran.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

#include "appstore/local_store.h"
#include "appstore/subscription_rules.h"
#include "platform/task.h"
#include "storekit/device.h"
#include "storekit/product.h"

namespace storekit {
namespace {

namespace fs = std::filesystem;
using appstore::LocalStore;
using namespace std::chrono_literals;

const std::string kSample = VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit";
const std::string kCoins = "com.vorntesk.sample.coins100";
const std::string kRemoveAds = "com.vorntesk.sample.removeads";
const std::string kSeasonPass = "com.vorntesk.sample.seasonpass";
const std::string kPro = "com.vorntesk.sample.pro.monthly";

class Relaunch : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = LocalStore::setShared(nullptr); }
  void TearDown() override {
    LocalStore::setShared(previous_);
    fs::remove_all(dir_);
  }

  // A launch: the store opened on the state file, installed as the process's store.
  std::shared_ptr<LocalStore> launch() {
    LocalStore::setShared(nullptr);
    auto store = LocalStore::open(path_, appstore::StoreConfiguration::load(kSample));
    LocalStore::setShared(store);
    return store;
  }
  void quit() { LocalStore::setShared(nullptr); }

  // What the first updates sequence of this launch yields within `wait`, by id.
  static std::vector<std::uint64_t> replayed(std::chrono::milliseconds wait) {
    auto updates = Transaction::updates();
    std::vector<std::uint64_t> ids;
    std::promise<void> ended;
    auto task = platform::Task::run([&] {
      while (auto element = updates.next()) {
        EXPECT_TRUE(element->isVerified()) << element->unsafePayloadValue().id();
        ids.push_back(element->unsafePayloadValue().id());
      }
      ended.set_value();
    });
    std::this_thread::sleep_for(wait);
    task.cancel();
    EXPECT_EQ(ended.get_future().wait_for(2s), std::future_status::ready);
    return ids;
  }

  static std::uint64_t buy(const std::string& id) {
    const auto result = Product::products({id}).at(0).purchase();
    return std::get<PurchaseResult::Success>(result.value).verification.unsafePayloadValue().id();
  }

  fs::path dir_ = fs::temp_directory_path() / ("vorntesk-relaunch-" + std::to_string(getpid()));
  std::string path_ = (fs::create_directories(dir_), (dir_ / "state.db").string());
  std::shared_ptr<LocalStore> previous_;
};

// (The same signing root, and every token verifying under it, across hundreds of relaunches:
// tests/stress/crash_test.cpp and tests/interop.)
TEST_F(Relaunch, TheNextLaunchContinuesIdsAndReplaysWhatWasLeftUnfinished) {
  auto store = launch();
  const auto coins = buy(kCoins);
  const auto ads = buy(kRemoveAds);
  Transaction::all().next()->unsafePayloadValue().finish();  // the coins
  store->setAskToBuyEnabled(true);
  EXPECT_TRUE(std::holds_alternative<PurchaseResult::Pending>(
      Product::products({kSeasonPass}).at(0).purchase().value));
  const auto asked = store->allTransactions().back().identifier;
  store.reset();
  quit();

  store = launch();
  EXPECT_FALSE(store->askToBuyEnabled()) << "settings come from this launch's configuration";
  // The first listener of the launch hears of the unfinished purchase once; a second does not.
  EXPECT_EQ(replayed(300ms), std::vector<std::uint64_t>{ads});
  EXPECT_TRUE(replayed(100ms).empty());
  EXPECT_TRUE(store->allTransactions().at(0).finished);
  EXPECT_EQ(Transaction::all().next()->unsafePayloadValue().id(), ads) << "the coins are gone";
  // The pending request can be approved now, and ids go on after it.
  store->approveAskToBuyTransaction(asked);
  const auto next = buy(kCoins);
  EXPECT_GT(next, asked);
  EXPECT_GT(asked, coins);
  store.reset();
  quit();

  store = launch();
  EXPECT_EQ(store->allTransactions().size(), 4u);
  EXPECT_EQ(replayed(300ms), (std::vector<std::uint64_t>{ads, asked, next}));
}

TEST_F(Relaunch, RenewalsThatCameDueWhileNothingRanArriveAtTheNextLaunch) {
  auto store = launch();
  store->setTimeRate(appstore::time_rate::kOneRenewalEveryTwoSeconds);
  const auto first = buy(kPro);
  Transaction::all().next()->unsafePayloadValue().finish();
  store.reset();
  quit();
  std::this_thread::sleep_for(2500ms);  // one period passes while the app is closed

  store = launch();
  // The renewal was made at launch, at the period's end, and waits unfinished.
  const auto renewals = replayed(500ms);
  ASSERT_FALSE(renewals.empty());
  EXPECT_GT(renewals.front(), first);
  const auto history = store->allTransactions();
  ASSERT_GE(history.size(), 2u);
  EXPECT_EQ(history[1].originalTransactionIdentifier, first);
  EXPECT_EQ(history[1].purchaseDate, history[0].expirationDate);
}

}  // namespace
}  // namespace storekit
