#include "storekit/device.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <stop_token>
#include <thread>

#include <boost/json/parse.hpp>

#include "appstore/signing_authority.h"
#include "storekit/jws.h"

namespace storekit {
namespace {

using appstore::SignedTransaction;
using Listing = appstore::LocalStore::Listing;

// Each transaction of a listing is fetched when it is handed out, so a long history is never
// held in memory all at once; one deleted in the meantime is skipped.
class SnapshotSource : public TransactionSequence::Source {
 public:
  SnapshotSource(std::shared_ptr<Device> device, std::vector<std::uint64_t> ids)
      : device_(std::move(device)), ids_(std::move(ids)) {}

  std::optional<VerificationResult<Transaction>> next(std::stop_token stop) override {
    while (!stop.stop_requested() && index_ < ids_.size()) {
      const auto id = ids_[index_++];
      std::shared_ptr<appstore::LocalStore> store;
      try {
        store = device_->store();
      } catch (const StoreKitError&) {
        return std::nullopt;  // the store is gone
      }
      auto jws = store->signedForm(id);
      if (jws) return device_->verify({id, std::move(*jws)});
    }
    return std::nullopt;
  }

 private:
  std::shared_ptr<Device> device_;
  std::vector<std::uint64_t> ids_;
  std::size_t index_ = 0;
};

}  // namespace

struct Device::UpdateQueue {
  std::mutex mutex;
  std::condition_variable_any ready;
  std::condition_variable_any settled;  // the consumer came back for more
  std::deque<SignedTransaction> items;
  bool consumerWaiting = false;  // the consumer is inside next(), done with what it had
  // A reader whose task is cancelled gets what the queue held when it first saw the
  // cancellation, and nothing that arrives later (that stays for the sequence's next reader):
  // a steady stream of updates cannot keep a cancelled reader going for ever.
  std::stop_token cancelledReader;
  std::size_t leftForCancelledReader = 0;
};

namespace {

class UpdatesSource : public TransactionSequence::Source {
 public:
  UpdatesSource(std::shared_ptr<Device> device, std::shared_ptr<Device::UpdateQueue> queue)
      : device_(std::move(device)), queue_(std::move(queue)) {}

  std::optional<VerificationResult<Transaction>> next(std::stop_token stop) override {
    SignedTransaction transaction;
    {
      std::unique_lock lock(queue_->mutex);
      queue_->consumerWaiting = true;
      queue_->settled.notify_all();
      const bool got = queue_->ready.wait(lock, stop, [&] { return !queue_->items.empty(); });
      queue_->consumerWaiting = false;
      if (!got) return std::nullopt;
      if (stop.stop_requested()) {
        if (queue_->cancelledReader != stop) {
          queue_->cancelledReader = stop;
          queue_->leftForCancelledReader = queue_->items.size();
        }
        if (queue_->leftForCancelledReader == 0) return std::nullopt;
        --queue_->leftForCancelledReader;
      }
      transaction = std::move(queue_->items.front());
      queue_->items.pop_front();
    }
    return device_->verify(transaction);
  }

 private:
  std::shared_ptr<Device> device_;
  std::shared_ptr<Device::UpdateQueue> queue_;
};

// Never destroyed: tasks still running while the process exits may ask for the device.
std::mutex& currentMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::shared_ptr<Device>& currentDevice() {
  static auto* device = new std::shared_ptr<Device>;
  return *device;
}

}  // namespace

std::shared_ptr<Device> Device::current() {
  auto store = appstore::LocalStore::shared();
  std::lock_guard lock(currentMutex());
  auto& device = currentDevice();
  if (!device || device->store_.lock() != store) device = std::make_shared<Device>(std::move(store));
  return device;
}

Device::Device(std::shared_ptr<appstore::LocalStore> store) : store_(std::move(store)) {}

std::shared_ptr<appstore::LocalStore> Device::store() const {
  auto store = store_.lock();
  if (!store) throw StoreKitError::unknown();
  return store;
}

TransactionSequence Device::updates() {
  auto queue = std::make_shared<UpdateQueue>();
  bool first = false;
  {
    std::lock_guard lock(mutex_);
    first = !std::exchange(updatesStarted_, true);
    queues_.push_back(queue);
  }
  std::weak_ptr<UpdateQueue> weak = queue;
  store()->addTransactionListener(
      [weak](const std::vector<SignedTransaction>& transactions) {
        const auto listener = weak.lock();
        if (!listener) return false;
        {
          std::lock_guard lock(listener->mutex);
          listener->items.insert(listener->items.end(), transactions.begin(), transactions.end());
        }
        listener->ready.notify_all();
        return true;
      },
      first);
  return TransactionSequence(std::make_shared<UpdatesSource>(shared_from_this(), std::move(queue)));
}

bool Device::waitUntilUpdatesDelivered(std::chrono::milliseconds timeout, std::size_t minimumListeners) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::vector<std::shared_ptr<UpdateQueue>> queues;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      std::erase_if(queues_, [](const auto& weak) { return weak.expired(); });
      for (const auto& weak : queues_) {
        if (auto queue = weak.lock()) queues.push_back(std::move(queue));
      }
    }
    if (queues.size() >= minimumListeners) break;
    // A listener that is about to subscribe gives no signal; look again shortly.
    if (std::chrono::steady_clock::now() >= deadline) return false;
    queues.clear();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  bool delivered = true;
  for (const auto& queue : queues) {
    std::unique_lock lock(queue->mutex);
    delivered = queue->settled.wait_until(lock, deadline, [&] {
      return queue->items.empty() && queue->consumerWaiting;
    }) && delivered;
  }
  return delivered;
}

TransactionSequence Device::all() { return snapshot(Listing::all); }
TransactionSequence Device::currentEntitlements() { return snapshot(Listing::currentEntitlements); }
TransactionSequence Device::unfinished() { return snapshot(Listing::unfinished); }

TransactionSequence Device::snapshot(Listing listing) {
  return TransactionSequence(
      std::make_shared<SnapshotSource>(shared_from_this(), store()->transactionIDs(listing)));
}

VerificationResult<Transaction> Device::verify(const SignedTransaction& signedTransaction) {
  const auto& jws = signedTransaction.jws;
  const auto store = this->store();
  // What an unverified result carries: the payload the token claims, else (a token damaged
  // beyond reading) the one the store signed.
  // Text that is not UTF-8 is read as it is, so that what the token claims still reaches the
  // app (whose encoder then refuses it).
  auto claimed = [&]() -> Transaction {
    boost::json::parse_options lenient;
    lenient.allow_invalid_utf8 = true;
    for (const auto& payload : {decodeJWSPayload(jws), store->signedPayload(signedTransaction.id)}) {
      if (!payload) continue;
      boost::json::error_code ec;
      auto value = boost::json::parse(*payload, ec, {}, lenient);
      if (ec || !value.is_object()) continue;
      try {
        return Transaction::fromPayload(std::move(value.as_object()));
      } catch (const VerificationError&) {
      }
    }
    throw VerificationError(VerificationError::Code::invalidEncoding);
  };
  if (const auto forced = store->verificationFailure(signedTransaction.id)) {
    try {
      throwStoreFailure(*forced);
    } catch (const VerificationError& error) {
      return VerificationResult<Transaction>::unverified(claimed(), error, jws);
    } catch (const Error&) {
    }
  }
  try {
    auto transaction = Transaction::fromJSON(verifyJWS(jws, store->rootCertificate()));
    const auto* stored = transaction.payload().if_contains("deviceVerification");
    if (stored && transaction.deviceVerification() !=
                      appstore::deviceVerificationFor(transaction.deviceVerificationNonce(),
                                            store->deviceIdentifier())) {
      throw VerificationError(VerificationError::Code::invalidDeviceVerification);
    }
    return VerificationResult<Transaction>::verified(std::move(transaction), jws);
  } catch (const VerificationError& error) {
    return VerificationResult<Transaction>::unverified(claimed(), error, jws);
  }
}

}  // namespace storekit
