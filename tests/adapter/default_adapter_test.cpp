// The blocking bridge the adapter's calls use. (Its store error mapping and purchase options:
// tests/integration.)
#include "adapter/run_blocking.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>

namespace {

TEST(RunBlocking, EachCallerWaitsForItsOwnOperationRunningElsewhere) {
  // Both operations must be running at once for either to finish.
  std::latch bothRunning(2);
  auto operation = [&bothRunning](int value) {
    return [&bothRunning, value, caller = std::this_thread::get_id()] {
      EXPECT_NE(std::this_thread::get_id(), caller);
      bothRunning.arrive_and_wait();
      return value;
    };
  };
  int other = 0;
  std::thread caller([&] { other = VornTeskPaymentsAddonApple::runBlocking<int>(operation(1)); });
  EXPECT_EQ(VornTeskPaymentsAddonApple::runBlocking<int>(operation(2)), 2);
  caller.join();
  EXPECT_EQ(other, 1);
}

}  // namespace
