// Watches the store's stream of transaction updates while started and forwards every
// update, verified or not, as the bridge event "AppleStoreKitService.OnTransactionUpdate"
// with the transaction record's JSON as payload. It only reports: it never finishes a
// transaction.
//
// start/stop may be called from any thread; they serialise on the observer's lock, which
// guards only the task handle and is never held across a wait or a call out. The loop runs
// as one task on the shared pool and refers to the observer weakly: an observer that is
// destroyed while its loop runs leaves the loop running (only stop cancels it). When any
// loop ends it calls stop on its observer, which stops whatever loop is current by then.
// Create observers with std::make_shared.
#pragma once

#include "platform/task.h"

#include <memory>
#include <mutex>
#include <string_view>

namespace VornTeskPaymentsAddonApple {

class TransactionObserver final : public std::enable_shared_from_this<TransactionObserver> {
 public:
  static constexpr std::string_view kEventName = "AppleStoreKitService.OnTransactionUpdate";

  // True when this call started the loop; false when one was already running.
  bool start();
  // Cancels the running loop, if any. Harmless when stopped.
  void stop();

  bool isRunning() const;

 private:
  mutable std::mutex lock_;
  platform::Task task_;
};

}  // namespace VornTeskPaymentsAddonApple
