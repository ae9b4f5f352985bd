// Store updates made one after another while the observer is started and stopped at random
// through the plug-in. What a host can rely on, and what this checks, loop by loop (a loop is
// one task of the observer, told apart by the stop token of the task that emits):
// - a loop emits the updates its subscription received once each, in the order they were
//   made: its events form one unbroken run of consecutive updates;
// - a loop that has received an update keeps receiving until it is cancelled, and it emits
//   what it received before it ends: its run reaches at least the last update completed
//   before the moment its cancellation was requested.
// Updates made while no loop is subscribed are emitted by none, and updates made between a
// loop's cancellation and its end may or may not be; neither is observable, so neither is
// asserted. (The end of a loop also stops the loop started after it; the moment of
// cancellation is read from the token itself, so that counts as well.)
#include "platform/json.h"
#include "platform/task.h"
#include "stress/stress.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits>
#include <random>
#include <stop_token>
#include <thread>

namespace {

using namespace testsupport;

constexpr std::size_t kUnknown = std::numeric_limits<std::size_t>::max();

struct Loop {
  std::stop_token token;
  std::vector<std::uint64_t> ids;  // the transaction ids it emitted, in order
  std::atomic<bool> registering{true};
  // Updates completed when the loop's cancellation was requested; kUnknown when it was
  // requested before the loop's first event was seen.
  std::atomic<std::size_t> madeBeforeCancel{kUnknown};
  std::unique_ptr<std::stop_callback<std::function<void()>>> watch;
};

struct Book {
  std::atomic<std::size_t> made{0};  // updates whose store call has returned
  std::mutex mutex;                  // guards loops and wrongEvents
  std::vector<std::unique_ptr<Loop>> loops;
  std::size_t wrongEvents = 0;

  // Called on the emitting loop's own thread.
  void record(const std::string& name, const std::string& payload) {
    const auto parsed = platform::parseJSON(payload);
    const auto token = platform::Task::currentStopToken();
    std::lock_guard lock(mutex);
    if (name != "AppleStoreKitService.OnTransactionUpdate" || !parsed || !token.stop_possible()) {
      ++wrongEvents;
      return;
    }
    Loop* loop = nullptr;
    for (auto it = loops.rbegin(); it != loops.rend() && !loop; ++it) {
      if ((*it)->token == token) loop = it->get();
    }
    if (!loop) {
      loop = loops.emplace_back(std::make_unique<Loop>()).get();
      loop->token = token;
      // Runs at once, on this thread, if cancellation was already requested: too late to
      // know when, so that case stays unknown.
      loop->watch =
          std::make_unique<std::stop_callback<std::function<void()>>>(token, [this, loop] {
            if (!loop->registering.load()) loop->madeBeforeCancel.store(made.load());
          });
      loop->registering.store(false);
    }
    loop->ids.push_back(parsed->at("id").to_number<std::uint64_t>());
  }
};

// Until every loop has emitted all it received. A sequence that is ending just then makes a
// round come back false, so the wait is made in short rounds.
bool everythingDelivered(storekit::LocalStore& store) {
  for (int round = 0; round < 1200; ++round) {
    if (store.waitUntilUpdatesDelivered(std::chrono::milliseconds(100))) return true;
  }
  return false;
}

class ObserverStress : public ServiceTest {};

TEST_F(ObserverStress, EachLoopEmitsEveryUpdateItReceivedOnceAndInOrder) {
  const std::size_t updates = stress::scaled(100'000);
  // The store's first updates sequence would also replay what was left unfinished; take that
  // one now, while there is nothing, so every loop hears only updates made while it listens.
  (void)store->updates();
  // Every update comes out unverified, which the observer forwards like any other: a hundred
  // thousand updates, each handed to one or more loops, must not cost as many full signature
  // checks (JWS verification has fuzzing of its own).
  store->setSimulatedError(
      storekit::StoreKitAPI::verification,
      storekit::VerificationError(storekit::VerificationError::Code::invalidSignature));

  auto book = std::make_shared<Book>();
  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  const auto listener = dispatcher.addEventListener(
      [book](const std::string& name, const std::string& payload) { book->record(name, payload); });

  std::mutex paceMutex;
  std::condition_variable paced;
  std::vector<std::uint64_t> ids(updates);
  std::thread pusher([&] {
    for (std::size_t i = 0; i < updates; ++i) {
      ids[i] = store->buyProduct(kCoins).id();
      book->made.fetch_add(1);
      {
        std::lock_guard lock(paceMutex);
        paced.notify_all();
      }
      // Now and then let the loops catch up, and forget the history (updates already handed
      // to sequences stay there), so that memory stays flat. Only pacing: a round that ends
      // while a loop is just finishing comes back false, which does not matter here.
      if (i % 256 == 255) (void)store->waitUntilUpdatesDelivered(std::chrono::milliseconds(2));
      if (i % 10'000 == 9'999) store->clearTransactions();
    }
  });
  // Starts and stops at random, each phase lasting a random number of updates.
  std::size_t starts = 0;
  std::mt19937 random(2024);
  auto waitForUpdates = [&](std::size_t count) {
    std::unique_lock lock(paceMutex);
    const std::size_t target = std::min(updates, book->made.load() + count);
    paced.wait(lock, [&] { return book->made.load() >= target; });
  };
  while (book->made.load() < updates) {
    EXPECT_EQ(call("StartTransactionObserver"), R"({"success":{}})");
    ++starts;
    waitForUpdates(std::uniform_int_distribution<std::size_t>(0, 64)(random));
    EXPECT_EQ(call("StopTransactionObserver"), R"({"success":{}})");
    waitForUpdates(std::uniform_int_distribution<std::size_t>(0, 8)(random));
  }
  pusher.join();
  ASSERT_TRUE(everythingDelivered(*store));
  dispatcher.removeEventListener(listener);

  std::lock_guard lock(book->mutex);
  EXPECT_EQ(book->wrongEvents, 0u);
  for (std::size_t i = 1; i < updates; ++i)
    ASSERT_EQ(ids[i], ids[0] + i) << "updates are not consecutive";
  // Violations are counted, and the first of each kind shown, so a broken loop does not
  // bury the report under thousands of lines.
  std::size_t emitted = 0, runsChecked = 0, broken = 0, cutShort = 0;
  std::string firstBroken, firstCutShort;
  for (const auto& loop : book->loops) {
    const auto& run = loop->ids;
    emitted += run.size();
    for (std::size_t k = 0; k < run.size(); ++k) {
      const bool made = run[k] >= ids[0] && run[k] <= ids.back();
      if (!made || (k > 0 && run[k] != run[k - 1] + 1)) {
        if (broken++ == 0) {
          firstBroken = "emitted " + (k > 0 ? std::to_string(run[k - 1]) + " then " : "") +
                        std::to_string(run[k]);
        }
        break;
      }
    }
    const std::size_t cancelledAt = loop->madeBeforeCancel.load();
    if (cancelledAt == kUnknown || run.empty()) continue;
    const std::size_t first = run.front() - ids[0];
    const std::size_t last = run.back() - ids[0];
    if (first < cancelledAt) {
      ++runsChecked;
      if (last + 1 < cancelledAt && cutShort++ == 0) {
        firstCutShort = "received update " + std::to_string(first) + ", ended before emitting " +
                        std::to_string(cancelledAt - 1) + " (last emitted " + std::to_string(last) +
                        ")";
      }
    }
  }
  EXPECT_EQ(broken, 0u) << "loops whose events are not one unbroken run; first: " << firstBroken;
  EXPECT_EQ(cutShort, 0u) << "loops that ended short of their cancellation; first: "
                          << firstCutShort;
  std::cout << updates << " updates, " << starts << " starts, " << book->loops.size()
            << " loops emitted " << emitted << " events; " << runsChecked
            << " runs checked up to their cancellation\n";
  EXPECT_GT(emitted, 0u);
  for (auto& loop : book->loops) loop->watch.reset();
}

}  // namespace
