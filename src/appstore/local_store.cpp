#include "appstore/local_store.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>

#include "appstore/store_state.h"

namespace appstore {
using Kind = ConfiguredProduct::Kind;
using std::chrono::hours;
using std::chrono::milliseconds;

// --- The process's store -------------------------------------------------------------------

namespace {
// Never destroyed: tasks still running while the process exits may ask for the store.
std::mutex& sharedMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::shared_ptr<LocalStore>& sharedStore() {
  static auto* store = new std::shared_ptr<LocalStore>;
  return *store;
}

std::shared_ptr<const SigningAuthority> sharedAuthority() {
  // Never destroyed: stores made while the process exits still need it.
  static const auto* authority = new std::shared_ptr<const SigningAuthority>(SigningAuthority::generate());
  return *authority;
}
}  // namespace

std::shared_ptr<LocalStore> LocalStore::shared() {
  std::lock_guard lock(sharedMutex());
  if (sharedStore()) return sharedStore();
  StoreConfiguration configuration;
  const char* configPath = std::getenv("VORNTESK_STOREKIT_CONFIG");
  if (configPath && *configPath) {
    try {
      configuration = StoreConfiguration::load(configPath);
    } catch (const ConfigurationError& error) {
      std::fprintf(stderr, "StoreKit: configuration refused: %s\n", error.what());
    }
  }
  const char* statePath = std::getenv("VORNTESK_STOREKIT_STATE");
  if (statePath && *statePath) {
    try {
      sharedStore() = open(statePath, configuration);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "StoreKit: %s; keeping the ledger in memory\n", error.what());
    }
  }
  if (!sharedStore()) {
    try {
      sharedStore() = create(std::move(configuration));
    } catch (const ConfigurationError& error) {
      std::fprintf(stderr, "StoreKit: configuration refused: %s\n", error.what());
      sharedStore() = create();
    }
  }
  return sharedStore();
}

std::shared_ptr<LocalStore> LocalStore::setShared(std::shared_ptr<LocalStore> store) {
  std::lock_guard lock(sharedMutex());
  std::swap(store, sharedStore());
  return store;
}

std::shared_ptr<LocalStore> LocalStore::create(StoreConfiguration configuration,
                                               std::shared_ptr<const SigningAuthority> authority) {
  auto state = std::make_unique<State>(Ledger::open(""), authority ? authority : sharedAuthority());
  auto signer = state->authority;
  std::shared_ptr<LocalStore> store(new LocalStore(std::move(state), std::move(signer)));
  store->loadConfiguration(std::move(configuration));
  store->startRenewals();
  return store;
}

std::shared_ptr<LocalStore> LocalStore::open(const std::string& statePath,
                                             StoreConfiguration configuration) {
  // The file keeps every byte until the store accepts what it holds (startRenewals).
  auto state = std::make_unique<State>(Ledger::open(statePath, Ledger::Opening::untilFinished), nullptr);
  auto signer = state->authority;
  std::shared_ptr<LocalStore> store(new LocalStore(std::move(state), std::move(signer)));
  store->loadConfiguration(std::move(configuration));
  store->startRenewals();
  return store;
}

std::shared_ptr<LocalStore> LocalStore::createFromFile(const std::string& path) {
  return create(StoreConfiguration::load(path));
}

LocalStore::LocalStore(std::unique_ptr<State> state, std::shared_ptr<const SigningAuthority> authority)
    : authority_(std::move(authority)), deviceID_(state->deviceID), state_(std::move(state)) {}

void LocalStore::startRenewals() {
  {
    // What came due while nothing ran is caught up before anyone can ask, with this launch's
    // catalogue: the first updates sequence then finds it among the unfinished.
    std::lock_guard lock(mutex_);
    try {
      state_->commit([&](LedgerWrite& write) { (void)state_->renewDue(write); });
    } catch (const std::exception& error) {
      std::fprintf(stderr, "StoreKit: renewals not saved: %s\n", error.what());
    }
    state_->ledger->finishOpening();
  }
  renewalThread_ = std::jthread([this](std::stop_token stop) { renewalLoop(stop); });
}

LocalStore::~LocalStore() {
  renewalThread_.request_stop();
  if (renewalThread_.joinable()) renewalThread_.join();
}

void LocalStore::wakeRenewals() {
  state_->wake = true;
  timerChanged_.notify_all();
}

void LocalStore::renewalLoop(std::stop_token stop) {
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    std::vector<SignedTransaction> renewed;
    try {
      state_->wake = false;
      // Waits of more than a day are taken a day at a time: the wait is counted in the
      // clock's nanoseconds, and the time to the clock's end of year 9999 overflows them.
      const auto due = state_->nextRenewal();
      const auto wait = due ? std::clamp(*due - state_->now(), milliseconds(0), milliseconds(hours(24)))
                            : milliseconds(hours(24));
      timerChanged_.wait_for(lock, stop, wait, [&] { return state_->wake; });
      if (stop.stop_requested()) break;
      state_->commit([&](LedgerWrite& write) { renewed = state_->renewDue(write); });
    } catch (const std::exception& error) {
      // Nothing was renewed; the next wake-up tries again.
      std::fprintf(stderr, "StoreKit: renewals not saved: %s\n", error.what());
      renewed.clear();
      timerChanged_.wait_for(lock, stop, std::chrono::seconds(1), [&] { return state_->wake; });
    }
    state_->broadcast(renewed);
  }
}

// --- What a device calls -----------------------------------------------------------------------

ProductListing LocalStore::products(const std::vector<std::string>& ids) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  state.throwIfSimulated(StoreKitAPI::loadProducts);
  ProductListing listing;
  listing.locale = state.settings.locale;
  listing.storefront = state.storefront();
  for (const auto& configured : state.configuration.products) {
    const auto count = std::count(ids.begin(), ids.end(), configured.productID);
    for (std::ptrdiff_t i = 0; i < count; ++i) listing.products.push_back(configured);
  }
  listing.groups = state.configuration.groups;
  return listing;
}

PurchaseOutcome LocalStore::purchase(const PurchaseRequest& request) {
  SignedTransaction made;
  {
    std::lock_guard lock(mutex_);
    auto& state = *state_;
    state.throwIfSimulated(StoreKitAPI::purchase);
    if (state.settings.failTransactionsEnabled) {
      throw StoreFailureError({StoreFailure::Family::storeKit, "unknown"});
    }
    const auto* product = state.configuration.product(request.productID);
    if (!product) throw StoreFailureError::purchase("productUnavailable");
    const auto checked = state.check(*product, request);
    if (const auto next = std::exchange(state.nextPurchase, std::nullopt)) {
      if (*next == NextPurchaseResult::userCancelled) return {PurchaseOutcome::Kind::userCancelled, {}};
      return {PurchaseOutcome::Kind::unrecognized, {}};
    }
    if (state.settings.askToBuyEnabled || checked.askToBuy || state.settings.interruptedPurchasesEnabled) {
      const bool interrupted = !(state.settings.askToBuyEnabled || checked.askToBuy);
      state.commit([&](LedgerWrite& write) {
        state.putWaitingRequest(write, state.nextID++, checked,
                                interrupted ? TestTransaction::State::interrupted
                                            : TestTransaction::State::pendingAskToBuy);
        state.putCounters(write);
      });
      // An interrupted purchase fails in the app; it completes later, outside it.
      return {interrupted ? PurchaseOutcome::Kind::userCancelled : PurchaseOutcome::Kind::pending, {}};
    }
    bool created = false;
    state.commit([&](LedgerWrite& write) {
      made = state.completePurchase(write, *product, checked, std::nullopt, created);
    });
  }
  timerChanged_.notify_all();
  return {PurchaseOutcome::Kind::success, std::move(made)};
}

void LocalStore::finish(std::uint64_t transactionID) {
  std::lock_guard lock(mutex_);
  const auto row = state_->ledger->transaction(transactionID);
  if (!row || row->state != EntryState::purchased || row->finished) return;
  state_->commit([&](LedgerWrite& write) { write.setFinished(transactionID); });
}

void LocalStore::sync() {
  std::lock_guard lock(mutex_);
  state_->throwIfSimulated(StoreKitAPI::appStoreSync);
}

std::optional<Storefront> LocalStore::currentStorefront() {
  std::lock_guard lock(mutex_);
  if (!state_->storefrontAvailable) return std::nullopt;
  return state_->storefront();
}

std::vector<std::uint64_t> LocalStore::transactionIDs(Listing listing) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  std::vector<std::uint64_t> ids;
  if (listing != Listing::currentEntitlements) {
    const auto selection = listing == Listing::all ? Selection::history : Selection::unfinished;
    for (const auto& row : state.ledger->transactions(selection)) ids.push_back(row.id);
    return ids;
  }
  // Non-consumables, the latest non-renewing subscription of each product, and the latest
  // auto-renewable subscription of each group while it is active.
  const auto now = state.now();
  const auto candidates = state.ledger->transactions(Selection::entitlementCandidates);
  std::map<std::string, const LedgerTransaction*> latest;
  auto later = [](const LedgerTransaction& a, const LedgerTransaction& b) {
    return a.purchaseDate > b.purchaseDate || (a.purchaseDate == b.purchaseDate && a.id > b.id);
  };
  for (const auto& row : candidates) {
    if (row.productType == "Non-Consumable") continue;
    const auto key = row.productType + "\n" + (row.groupID.empty() ? row.productID : row.groupID);
    auto& current = latest[key];
    if (!current || later(row, *current)) current = &row;
  }
  for (const auto& row : candidates) {
    if (row.productType == "Non-Consumable") {
      ids.push_back(row.id);
      continue;
    }
    const auto key = row.productType + "\n" + (row.groupID.empty() ? row.productID : row.groupID);
    if (latest[key] != &row) continue;
    if (row.productType == "Auto-Renewable Subscription") {
      // Entitled while subscribed and within its period, and throughout the grace period;
      // not in billing retry.
      const auto group = state.groups.find(row.groupID);
      const auto status = group == state.groups.end() ? RenewalStatus::subscribed : group->second.status;
      const bool inPeriod = !row.upgraded && row.expiresDate && *row.expiresDate > now;
      if (status == RenewalStatus::gracePeriod ? row.upgraded
                                               : status != RenewalStatus::subscribed || !inPeriod) {
        continue;
      }
    }
    ids.push_back(row.id);
  }
  return ids;
}

std::vector<SubscriptionStatus> LocalStore::subscriptionStatuses(const std::string& groupID) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  state.throwIfSimulated(StoreKitAPI::subscriptionStatus);
  std::vector<SubscriptionStatus> statuses;
  for (const auto& [id, held] : state.groups) {
    if (!groupID.empty() && id != groupID) continue;
    if (auto jws = state.ledger->signedForm(held.latestID)) {
      statuses.push_back(
          {id, held.originalID, held.status, {held.latestID, std::move(*jws)}, held.signedRenewalInfo});
    }
  }
  return statuses;
}

std::vector<SubscriptionStatus> LocalStore::subscriptionStatuses() { return subscriptionStatuses(""); }

std::optional<std::string> LocalStore::signedForm(std::uint64_t transactionID) {
  std::lock_guard lock(mutex_);
  return state_->ledger->signedForm(transactionID);
}

void LocalStore::addTransactionListener(TransactionListener listener, bool replayUnfinished) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  if (replayUnfinished) {
    std::vector<SignedTransaction> unfinished;
    for (const auto& row : state.ledger->transactions(Selection::unfinished)) {
      unfinished.push_back({row.id, state.ledger->signedForm(row.id).value_or("")});
    }
    if (!unfinished.empty() && !listener(unfinished)) return;
  }
  state.listeners.push_back(std::move(listener));
}

void LocalStore::allowVerificationFailures() { verificationFailuresPossible_ = true; }

std::optional<StoreFailure> LocalStore::verificationFailure(std::uint64_t transactionID) {
  if (!verificationFailuresPossible_) return std::nullopt;
  std::lock_guard lock(mutex_);
  if (const auto it = state_->verificationFailures.find(transactionID); it != state_->verificationFailures.end()) {
    return it->second;
  }
  if (const auto it = state_->simulatedErrors.find(StoreKitAPI::verification); it != state_->simulatedErrors.end()) {
    return it->second;
  }
  return std::nullopt;
}

// --- Configuration ----------------------------------------------------------------------------

StoreConfiguration LocalStore::configuration() const {
  std::lock_guard lock(mutex_);
  return state_->configuration;
}

void LocalStore::loadConfiguration(StoreConfiguration configuration) {
  if (!storefrontForCountry(configuration.settings.storefront)) {
    throw ConfigurationError("settings._storefront: unknown storefront \"" +
                             configuration.settings.storefront + "\"");
  }
  for (const auto& [api, error] : configuration.settings.simulatedErrors) {
    if (api == StoreKitAPI::verification) allowVerificationFailures();
  }
  std::lock_guard lock(mutex_);
  state_->applySettings(configuration.settings);
  state_->configuration = std::move(configuration);
  state_->changed();
  wakeRenewals();
}

std::string LocalStore::bundleID() const {
  std::lock_guard lock(mutex_);
  return state_->bundleID;
}

void LocalStore::setBundleID(std::string bundleID) {
  std::lock_guard lock(mutex_);
  state_->bundleID = std::move(bundleID);
}

void LocalStore::setEnvironment(const std::string& environment) {
  if (environment != "Xcode" && environment != "Sandbox") {
    throw std::invalid_argument("unknown environment \"" + environment + "\" (Xcode or Sandbox)");
  }
  std::lock_guard lock(mutex_);
  state_->environment = environment;
}

std::string LocalStore::environment() const {
  std::lock_guard lock(mutex_);
  return state_->environment;
}

void LocalStore::setServerURL(std::string url) {
  std::lock_guard lock(mutex_);
  state_->serverURL = std::move(url);
}

std::string LocalStore::serverURL() const {
  std::lock_guard lock(mutex_);
  return state_->serverURL;
}

std::string LocalStore::statePath() const {
  std::lock_guard lock(mutex_);
  return state_->ledger->path();
}

platform::Date LocalStore::now() const {
  std::lock_guard lock(mutex_);
  return state_->now();
}

void LocalStore::advanceTime(milliseconds amount) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  // The ledger keeps dates between the years 1970 and 9999; so does the clock.
  constexpr auto kLatest = milliseconds(253402300799999);
  const auto since1970 = state.now().time_since_epoch();
  if (amount > kLatest - since1970 || amount < -since1970) {
    throw std::invalid_argument("advanceTime: the store clock would leave the years 1970 to 9999");
  }
  std::vector<SignedTransaction> renewed;
  state.commit([&](LedgerWrite& write) {
    state.clockOffset += amount;
    renewed = state.renewDue(write);
    state.putCounters(write);
  });
  state.broadcast(renewed);
  wakeRenewals();
}

void LocalStore::advanceTime(double seconds) {
  // Beyond any amount the clock accepts, so checked before the conversion.
  if (!(std::abs(seconds) < 1e13)) {
    throw std::invalid_argument("advanceTime: the store clock would leave the years 1970 to 9999");
  }
  advanceTime(milliseconds(static_cast<std::int64_t>(seconds * 1000.0)));
}

}  // namespace appstore
