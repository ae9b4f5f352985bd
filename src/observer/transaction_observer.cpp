#include "observer/transaction_observer.h"

#include "adapter/conversions.h"
#include "host/json_coding.h"
#include "host/tesk_bridge_dispatcher.h"
#include "platform/logger.h"
#include "storekit/transaction.h"

namespace VornTeskPaymentsAddonApple {

namespace {

// Never destroyed: a loop may still be logging while the process exits.
const platform::Logger& observerLogger() {
  static const auto* logger = new platform::Logger(
      "com.qubrixplatform.vorntesk.payments.addon.apple", "TransactionObserver");
  return *logger;
}

void emit(const storekit::VerificationResult<storekit::Transaction>& update) {
  const AppleTransaction record = makeAppleTransaction(update);
  std::string payload;
  try {
    payload = vorn::tesk::TeskJSONCoding::makeEncoder().encode(record);
  } catch (const vorn::tesk::EncodingError&) {
    observerLogger().error("OnTransactionUpdate payload encoding failed; dropping the event");
    return;
  }
  vorn::tesk::TeskBridgeDispatcher::shared().emitEvent(
      std::string(TransactionObserver::kEventName), payload);
}

// The loop does not test for cancellation itself: cancelling its task ends the sequence.
void observeUpdates(const std::weak_ptr<TransactionObserver>& observer) {
  {
    auto updates = storekit::Transaction::updates();
    while (auto update = updates.next()) emit(*update);
  }
  if (auto strong = observer.lock()) strong->stop();
}

}  // namespace

bool TransactionObserver::start() {
  std::lock_guard lock(lock_);
  if (task_) return false;
  task_ = platform::Task::run([observer = weak_from_this()] { observeUpdates(observer); });
  return true;
}

void TransactionObserver::stop() {
  platform::Task stopped;
  {
    std::lock_guard lock(lock_);
    stopped = std::exchange(task_, platform::Task{});
  }
  stopped.cancel();
}

bool TransactionObserver::isRunning() const {
  std::lock_guard lock(lock_);
  return static_cast<bool>(task_);
}

}  // namespace VornTeskPaymentsAddonApple
