// Device: what runs on the phone between StoreKit's calls and the App Store. It checks every
// signed transaction it hands out against the root it trusts, turns the store's failures
// into StoreKit's errors, and keeps what a device keeps per launch: the listeners of
// Transaction.updates, and whether this launch's first updates sequence has already been
// given the unfinished transactions.
//
// One device per store: Device::current() belongs to LocalStore::shared() and is made anew
// when another store is installed. A device does not keep its store alive (a store that is
// closed must let go of its state file); once the store is gone its calls fail with
// StoreKitError.unknown and its sequences end. Any thread; calls block and are meant to run
// in tasks.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "appstore/ledger.h"
#include "appstore/local_store.h"
#include "storekit/errors.h"
#include "storekit/transaction.h"

namespace storekit {

class Device : public std::enable_shared_from_this<Device> {
 public:
  static std::shared_ptr<Device> current();

  explicit Device(std::shared_ptr<appstore::LocalStore> store);

  // The store, or StoreKitError.unknown once it is gone.
  std::shared_ptr<appstore::LocalStore> store() const;

  // The first updates sequence of a device also yields, once, what was left unfinished.
  TransactionSequence updates();
  TransactionSequence all();
  TransactionSequence currentEntitlements();
  TransactionSequence unfinished();

  // Checks a signed transaction as the device does. Throws VerificationError
  // (invalidEncoding) only when no transaction can be read from it at all.
  VerificationResult<Transaction> verify(const appstore::SignedTransaction& transaction);

  // Waits until every live `updates` sequence has handed out all it holds and its consumer
  // has come back for more (so whatever it did with the last element is done), after first
  // waiting for at least `minimumListeners` sequences to exist. False when `timeout` passes
  // first, for instance because a sequence is not being read at all.
  bool waitUntilUpdatesDelivered(std::chrono::milliseconds timeout, std::size_t minimumListeners = 0);

  struct UpdateQueue;

 private:
  TransactionSequence snapshot(appstore::LocalStore::Listing listing);

  std::weak_ptr<appstore::LocalStore> store_;
  std::mutex mutex_;
  bool updatesStarted_ = false;                     // guarded by mutex_
  std::vector<std::weak_ptr<UpdateQueue>> queues_;  // guarded by mutex_
};

// Runs a call to the store, turning what the store answers instead into StoreKit's errors:
// its refusals and simulated failures, and a change it could not save (a system error).
template <class Call>
auto askStore(Call&& call) -> decltype(call()) {
  try {
    return call();
  } catch (const appstore::StoreFailureError& failure) {
    throwStoreFailure(failure.failure());
  } catch (const appstore::LedgerError&) {
    throw StoreKitError::systemError(std::current_exception());
  }
}

}  // namespace storekit
