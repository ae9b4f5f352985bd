// Store updates while the observer starts and stops at random: each loop (told apart by its
// stop token) emits one unbroken run reaching at least the last update before its cancel.
#include "platform/json.h"
#include "platform/task.h"
#include "storekit/device.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <random>
#include <stop_token>
#include <thread>

namespace {

using namespace testsupport;

constexpr std::size_t kUpdates = 100'000;
constexpr std::size_t kUnknown = std::numeric_limits<std::size_t>::max();

struct Loop {
  std::stop_token token;
  std::vector<std::uint64_t> ids;  // the transaction ids it emitted, in order
  std::atomic<bool> registering{true};
  // Cancelled before the test's stop call began: by the end of the loop before it, which
  // stops whatever loop is current, at an instant the test does not know.
  std::atomic<bool> cancelledEarlier{false};
  // Updates made when its cancellation was asked; kUnknown if asked before its first event or
  // not by the test's own stop call.
  std::atomic<std::size_t> madeBeforeCancel{kUnknown};
  std::unique_ptr<std::stop_callback<std::function<void()>>> watch;
};

struct Book {
  std::atomic<std::size_t> made{0};  // updates whose store call has returned
  // `made` read just before a call that may cancel a loop: every update counted there was
  // handed to the loop before its cancellation, so it must emit at least that many. (Reading
  // `made` in the stop callback instead would count updates made after the loop stopped.)
  std::atomic<std::size_t> madeBeforeStopping{0};
  // While the test's stop call runs. A cancellation seen then, of a loop not already
  // cancelled when the call began, was asked after madeBeforeStopping was read. One seen at
  // another time may come from a loop's end, whose cancellation is asked before its callbacks
  // run, while the test goes on storing newer counts.
  std::atomic<bool> stopping{false};
  std::mutex mutex;  // guards loops and wrongEvents
  std::vector<std::unique_ptr<Loop>> loops;
  std::size_t wrongEvents = 0;

  void record(const std::string& name, const std::string& payload) {
    const auto parsed = platform::parseJSON(payload);
    const auto token = platform::Task::currentStopToken();
    std::lock_guard lock(mutex);
    if (name != "AppleStoreKitService.OnTransactionUpdate" || !parsed || !token.stop_possible()) {
      ++wrongEvents;
      return;
    }
    auto it =
        std::find_if(loops.rbegin(), loops.rend(), [&](auto& l) { return l->token == token; });
    Loop* loop = it == loops.rend() ? nullptr : it->get();
    if (!loop) {
      loop = loops.emplace_back(std::make_unique<Loop>()).get();
      loop->token = token;
      // Runs at once if cancellation was already asked: too late to know when.
      loop->watch =
          std::make_unique<std::stop_callback<std::function<void()>>>(token, [this, loop] {
            if (!loop->registering.load() && stopping.load() && !loop->cancelledEarlier.load()) {
              loop->madeBeforeCancel.store(madeBeforeStopping.load());
            }
          });
      loop->registering.store(false);
    }
    loop->ids.push_back(parsed->at("id").to_number<std::uint64_t>());
  }
};

class ObserverStress : public ServiceTest {};

TEST_F(ObserverStress, EachLoopEmitsEveryUpdateItReceivedOnceAndInOrder) {
  // Take the first (replaying) sequence now; unverified updates skip the signature checks.
  const auto device = storekit::Device::current();
  (void)device->updates();
  store->setSimulatedError(appstore::StoreKitAPI::verification,
                           appstore::StoreFailure::named("invalidSignature"));

  auto book = std::make_shared<Book>();
  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  const auto listener = dispatcher.addEventListener(
      [book](const std::string& name, const std::string& payload) { book->record(name, payload); });

  std::mutex paceMutex;
  std::condition_variable paced;
  std::vector<std::uint64_t> ids(kUpdates);
  std::thread pusher([&] {
    for (std::size_t i = 0; i < kUpdates; ++i) {
      ids[i] = store->buyProduct(kCoins).id;
      book->made.fetch_add(1);
      std::lock_guard<std::mutex>{paceMutex}, paced.notify_all();
      // Now and then let the loops catch up and forget history, so memory stays flat.
      if (i % 256 == 255) (void)device->waitUntilUpdatesDelivered(std::chrono::milliseconds(2));
      if (i % 10'000 == 9'999) store->clearTransactions();
    }
  });
  std::mt19937 random(2024);  // each phase lasts a random number of updates
  auto waitForUpdates = [&](std::size_t most) {
    const std::size_t count = std::uniform_int_distribution<std::size_t>(0, most)(random);
    std::unique_lock lock(paceMutex);
    const std::size_t target = std::min(kUpdates, book->made.load() + count);
    paced.wait(lock, [&] { return book->made.load() >= target; });
  };
  while (book->made.load() < kUpdates) {
    book->madeBeforeStopping.store(book->made.load());
    EXPECT_EQ(call("StartTransactionObserver"), R"({"success":{}})");
    waitForUpdates(64);
    book->madeBeforeStopping.store(book->made.load());
    {
      std::lock_guard lock(book->mutex);
      for (auto& loop : book->loops) {
        if (loop->token.stop_requested()) loop->cancelledEarlier.store(true);
      }
      book->stopping.store(true);
    }
    EXPECT_EQ(call("StopTransactionObserver"), R"({"success":{}})");
    book->stopping.store(false);
    waitForUpdates(8);
  }
  pusher.join();
  // Short rounds until every loop has emitted all it received (a sequence ending fails one).
  bool delivered = false;
  for (int round = 0; round < 1200 && !delivered; ++round) {
    delivered = device->waitUntilUpdatesDelivered(std::chrono::milliseconds(100));
  }
  ASSERT_TRUE(delivered);
  dispatcher.removeEventListener(listener);

  std::lock_guard lock(book->mutex);
  EXPECT_EQ(book->wrongEvents, 0u);
  for (std::size_t i = 1; i < kUpdates; ++i) ASSERT_EQ(ids[i], ids[0] + i) << "not consecutive";
  // The first offending loops, described well enough to tell a lost event from a late stop.
  std::size_t emitted = 0, broken = 0, cutShort = 0;
  std::string evidence;
  for (std::size_t index = 0; index < book->loops.size(); ++index) {
    const auto& run = book->loops[index]->ids;
    const std::size_t cancelledAt = book->loops[index]->madeBeforeCancel.load();
    emitted += run.size();
    const auto gap = [](std::uint64_t a, std::uint64_t b) { return b != a + 1; };
    const bool unbroken = std::adjacent_find(run.begin(), run.end(), gap) == run.end() &&
                          (run.empty() || (run.front() >= ids[0] && run.back() <= ids.back()));
    const bool shortOfCancel = cancelledAt != kUnknown && !run.empty() &&
                               run.front() - ids[0] < cancelledAt &&
                               run.back() - ids[0] + 1 < cancelledAt;
    if ((!unbroken || shortOfCancel) && broken + cutShort < 6) {
      evidence += "\n  loop " + std::to_string(index) + (unbroken ? " cut short: " : " broken: ") +
                  std::to_string(run.size()) + " events" +
                  (run.empty() ? ""
                               : ", updates " + std::to_string(run.front() - ids[0]) + ".." +
                                     std::to_string(run.back() - ids[0])) +
                  ", updates made when it was stopped: " +
                  (cancelledAt == kUnknown ? "unknown" : std::to_string(cancelledAt));
    }
    broken += !unbroken;
    cutShort += shortOfCancel;
  }
  EXPECT_EQ(broken, 0u) << "loops whose events are not one unbroken run of updates" << evidence;
  EXPECT_EQ(cutShort, 0u) << "loops that ended short of their cancellation" << evidence << "\n  of "
                          << book->loops.size() << " loops, " << emitted << " events";
  EXPECT_GT(emitted, 0u);
}

}  // namespace
