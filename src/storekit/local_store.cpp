#include "storekit/local_store.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <stdexcept>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "platform/base64.h"
#include "storekit/price_format.h"
#include "storekit/storefronts.h"

namespace storekit {
namespace json = boost::json;
using Kind = ConfiguredProduct::Kind;
using std::chrono::milliseconds;

namespace {

constexpr std::int64_t kMaxQuantity = 10;
// Renewals caught up in one go; a store left alone for ages at a fast time rate would
// otherwise produce an unbounded history.
constexpr int kMaxRenewalsPerCatchUp = 1000;

struct AppliedOffer {
  std::int64_t type = 0;  // Transaction.OfferType raw value
  std::optional<std::string> id;
  ConfiguredOffer terms;
};

struct PurchaseRequest {
  std::string productID;
  std::int64_t quantity = 1;
  std::optional<platform::UUID> appAccountToken;
  std::optional<AppliedOffer> offer;
  bool askToBuy = false;
};

struct Record {
  std::uint64_t id = 0;
  std::string productID;
  Kind kind = Kind::consumable;
  std::string groupID;
  TestTransaction::State state = TestTransaction::State::purchased;
  PurchaseRequest request;  // what a pending or interrupted purchase will buy
  json::object payload;
  std::string jws;
  std::optional<Transaction> transaction;
  bool finished = false;

  bool purchased() const { return state == TestTransaction::State::purchased; }
  bool revoked() const { return payload.contains("revocationDate"); }
  bool upgraded() const {
    const auto* value = payload.if_contains("isUpgraded");
    return value && value->is_bool() && value->get_bool();
  }
  std::optional<platform::Date> expires() const {
    const auto* value = payload.if_contains("expiresDate");
    if (!value || !value->is_int64()) return std::nullopt;
    return platform::dateFromMillisecondsSince1970(value->get_int64());
  }
  platform::Date purchaseDate() const {
    const auto* value = payload.if_contains("purchaseDate");
    return platform::dateFromMillisecondsSince1970(value && value->is_int64() ? value->get_int64() : 0);
  }
};

// The subscription an account holds in one group: renewals and upgrades continue it.
struct GroupState {
  std::uint64_t originalID = 0;
  platform::Date originalPurchaseDate;
  std::uint64_t latestID = 0;
  bool autoRenew = true;
  std::optional<std::string> pendingProductID;  // a downgrade waiting for the next renewal
  std::int64_t offerPeriodsLeft = 0;
  std::optional<AppliedOffer> continuingOffer;
};

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string deviceVerificationFor(const platform::UUID& nonce, const platform::UUID& device) {
  return sha384(lowercase(nonce.uuidString()) + lowercase(device.uuidString()));
}

Kind kindOfType(std::string_view type) {
  if (type == ProductType::nonConsumable().rawValue) return Kind::nonConsumable;
  if (type == ProductType::nonRenewable().rawValue) return Kind::nonRenewable;
  if (type == ProductType::autoRenewable().rawValue) return Kind::autoRenewable;
  return Kind::consumable;
}

ProductType typeOfKind(Kind kind) {
  switch (kind) {
    case Kind::consumable: return ProductType::consumable();
    case Kind::nonConsumable: return ProductType::nonConsumable();
    case Kind::nonRenewable: return ProductType::nonRenewable();
    case Kind::autoRenewable: return ProductType::autoRenewable();
  }
  return ProductType::consumable();
}

OfferPaymentMode paymentModeOf(ConfiguredOffer::Mode mode) {
  switch (mode) {
    case ConfiguredOffer::Mode::freeTrial: return OfferPaymentMode::freeTrial();
    case ConfiguredOffer::Mode::payAsYouGo: return OfferPaymentMode::payAsYouGo();
    case ConfiguredOffer::Mode::payUpFront: return OfferPaymentMode::payUpFront();
  }
  return OfferPaymentMode::freeTrial();
}

platform::Date addCalendar(platform::Date start, const SubscriptionPeriod& period) {
  using namespace std::chrono;
  const auto day = floor<days>(start);
  const auto timeOfDay = start - day;
  year_month_day date{day};
  switch (period.unit) {
    case SubscriptionPeriod::Unit::day: return start + days(period.value);
    case SubscriptionPeriod::Unit::week: return start + days(7 * period.value);
    case SubscriptionPeriod::Unit::month: date += months(period.value); break;
    case SubscriptionPeriod::Unit::year: date += years(period.value); break;
  }
  // The 31st plus a month ends on the last day of a shorter month.
  if (!date.ok()) date = date.year() / date.month() / last;
  return platform::Date(sys_days(date)) + timeOfDay;
}

[[noreturn]] void throwError(const SimulatedError& error) {
  if (const auto* storeKit = std::get_if<StoreKitError>(&error)) throw *storeKit;
  if (const auto* purchase = std::get_if<PurchaseError>(&error)) throw *purchase;
  throw std::get<VerificationError>(error);
}

[[noreturn]] void invalid(const std::string& message) { throw std::invalid_argument(message); }

}  // namespace

platform::Date periodEnd(platform::Date start, const SubscriptionPeriod& period, int timeRate) {
  using namespace std::chrono;
  const auto days = period.approximateDays();
  switch (timeRate) {
    case time_rate::kMonthlyRenewalEveryHour: return start + days * milliseconds(hours(1)) / 30;
    case time_rate::kMonthlyRenewalEveryThirtyMinutes: return start + days * milliseconds(minutes(30)) / 30;
    case time_rate::kMonthlyRenewalEveryFifteenMinutes: return start + days * milliseconds(minutes(15)) / 30;
    case time_rate::kMonthlyRenewalEveryFiveMinutes: return start + days * milliseconds(minutes(5)) / 30;
    case time_rate::kMonthlyRenewalEveryThirtySeconds: return start + days * milliseconds(seconds(30)) / 30;
    case time_rate::kOneRenewalEveryFifteenMinutes: return start + minutes(15);
    case time_rate::kOneRenewalEveryFiveMinutes: return start + minutes(5);
    case time_rate::kOneRenewalEveryMinute: return start + minutes(1);
    case time_rate::kOneRenewalEveryThirtySeconds: return start + seconds(30);
    case time_rate::kOneRenewalEveryTenSeconds: return start + seconds(10);
    case time_rate::kOneRenewalEveryTwoSeconds: return start + seconds(2);
    default: break;
  }
  // The older day-scaled rates: a day of subscription passes in a second.
  if (timeRate >= 1 && timeRate <= 6) return start + days * milliseconds(seconds(1));
  return addCalendar(start, period);
}

struct LocalStore::Entry {
  std::uint64_t id = 0;
  std::string jws;
  std::optional<Transaction> transaction;
};

struct LocalStore::UpdateQueue {
  std::mutex mutex;
  std::condition_variable_any ready;
  std::condition_variable_any settled;  // the consumer came back for more
  std::deque<Entry> items;
  bool consumerWaiting = false;  // the consumer is inside next(), done with what it had
  // A reader whose task is cancelled gets what the queue held when it first saw the
  // cancellation, and nothing that arrives later (that stays for the sequence's next reader):
  // a steady stream of updates cannot keep a cancelled reader going for ever.
  std::stop_token cancelledReader;
  std::size_t leftForCancelledReader = 0;
};

struct LocalStore::State {
  StoreConfiguration configuration;
  StoreSettings settings;
  std::string bundleID = "com.vorntesk.example";
  platform::UUID deviceID = platform::UUID::random();
  std::string appTransactionID;
  milliseconds clockOffset{0};
  std::uint64_t nextID = 1;
  std::uint64_t nextWebOrderLineItemID = 10000;
  std::vector<Record> records;
  std::map<std::string, GroupState> groups;
  std::map<StoreKitAPI, SimulatedError> simulatedErrors;
  std::map<std::uint64_t, VerificationError> verificationFailures;
  bool storefrontAvailable = true;
  std::optional<NextPurchaseResult> nextPurchase;
  std::vector<std::weak_ptr<UpdateQueue>> subscribers;
  bool updatesStarted = false;
  bool wake = false;

  // --- helpers; every one runs with the store's lock held ---

  platform::Date now() const { return platform::now() + clockOffset; }

  Storefront storefront() const {
    return storefrontForCountry(settings.storefront).value_or(Storefront{"USA", "143441", "USD"});
  }

  void throwIfSimulated(StoreKitAPI api) const {
    const auto it = simulatedErrors.find(api);
    if (it != simulatedErrors.end()) throwError(it->second);
  }

  Record* record(std::uint64_t id) {
    for (auto& entry : records) {
      if (entry.id == id) return &entry;
    }
    return nullptr;
  }

  Entry entryOf(const Record& record) const { return {record.id, record.jws, record.transaction}; }

  void sign(Record& record, const SigningAuthority& authority) {
    record.payload["signedDate"] = platform::millisecondsSince1970(now());
    record.jws = authority.sign(json::serialize(record.payload));
    record.transaction = Transaction::fromPayload(record.payload);
  }

  Product makeProduct(const ConfiguredProduct& configured) const {
    const auto currency = storefront().currency;
    auto format = [&](const platform::Decimal& amount) {
      return formatPrice(amount, settings.locale, currency).value_or(amount.toString());
    };
    Product product;
    product.id = configured.productID;
    product.displayName = configured.referenceName;
    if (const auto* localization = pickLocalization(configured.localizations, settings.locale)) {
      product.displayName = localization->displayName;
      product.description = localization->description;
    }
    product.price = configured.price;
    product.displayPrice = format(configured.price);
    product.priceFormatStyle = {settings.locale, currency};
    product.type = typeOfKind(configured.kind);
    product.isFamilyShareable = configured.familyShareable;
    product.jsonRepresentation = configured.json;
    if (configured.kind != Kind::autoRenewable) return product;

    auto offer = [&](const ConfiguredOffer& terms, SubscriptionOffer::OfferType type,
                     std::optional<std::string> id) {
      return SubscriptionOffer{std::move(id),         std::move(type),
                               terms.price,           format(terms.price),
                               terms.period,          terms.numberOfPeriods,
                               paymentModeOf(terms.paymentMode)};
    };
    SubscriptionInfo info;
    info.subscriptionGroupID = configured.subscriptionGroupID;
    info.subscriptionPeriod = configured.period;
    info.groupLevel = configured.groupLevel;
    if (const auto* group = configuration.group(configured.subscriptionGroupID)) {
      info.groupDisplayName = group->name;
      if (const auto* localization = pickLocalization(group->localizations, settings.locale)) {
        if (!localization->displayName.empty()) info.groupDisplayName = localization->displayName;
      }
    }
    if (configured.introductoryOffer) {
      info.introductoryOffer = offer(*configured.introductoryOffer,
                                     SubscriptionOffer::OfferType::introductory(), std::nullopt);
    }
    for (const auto& terms : configured.promotionalOffers) {
      info.promotionalOffers.push_back(
          offer(terms, SubscriptionOffer::OfferType::promotional(), terms.offerID));
    }
    std::vector<SubscriptionOffer> winBack;
    for (const auto& terms : configured.winBackOffers) {
      // Spelled out: reading the named case would end the process on older systems, but a
      // store always has its offers.
      winBack.push_back(offer(terms, SubscriptionOffer::OfferType{"winBack"}, terms.offerID));
    }
    info.setWinBackOffers(std::move(winBack));
    product.subscription = std::move(info);
    return product;
  }

  PurchaseRequest makeRequest(const ConfiguredProduct& product,
                              const std::vector<PurchaseOption>& options) const {
    using Code = PurchaseError::Code;
    PurchaseRequest request;
    request.productID = product.productID;
    for (const auto& option : options) {
      if (const auto* quantity = std::get_if<PurchaseOption::Quantity>(&option.value)) {
        if (quantity->value < 1 || quantity->value > kMaxQuantity) throw PurchaseError(Code::invalidQuantity);
        request.quantity = quantity->value;
      } else if (const auto* token = std::get_if<PurchaseOption::AppAccountToken>(&option.value)) {
        request.appAccountToken = token->value;
      } else if (const auto* promo = std::get_if<PurchaseOption::PromotionalOffer>(&option.value)) {
        if (product.kind != Kind::autoRenewable) throw PurchaseError(Code::ineligibleForOffer);
        if (promo->offerID.empty() || promo->keyID.empty() || promo->signature.empty()) {
          throw PurchaseError(Code::missingOfferParameters);
        }
        if (!platform::base64Decode(promo->signature)) throw PurchaseError(Code::invalidOfferSignature);
        const auto it = std::find_if(product.promotionalOffers.begin(), product.promotionalOffers.end(),
                                     [&](const auto& offer) { return offer.offerID == promo->offerID; });
        if (it == product.promotionalOffers.end()) throw PurchaseError(Code::invalidOfferIdentifier);
        request.offer = AppliedOffer{2, it->offerID, *it};
      } else if (const auto* winBack = std::get_if<PurchaseOption::WinBackOffer>(&option.value)) {
        const auto it = std::find_if(product.winBackOffers.begin(), product.winBackOffers.end(),
                                     [&](const auto& offer) { return offer.offerID == winBack->offerID; });
        if (it == product.winBackOffers.end()) throw PurchaseError(Code::invalidOfferIdentifier);
        request.offer = AppliedOffer{4, it->offerID, *it};
      } else if (const auto* ask = std::get_if<PurchaseOption::SimulatesAskToBuyInSandbox>(&option.value)) {
        request.askToBuy = ask->value;
      }
    }
    return request;
  }

  bool isActive(const GroupState& group) {
    const auto* latest = record(group.latestID);
    if (!latest || latest->revoked() || latest->upgraded()) return false;
    const auto expires = latest->expires();
    return expires && *expires > now();
  }

  Record& newTransaction(const ConfiguredProduct& product, const PurchaseRequest& request,
                         const Transaction::Reason& reason, platform::Date purchaseDate,
                         const std::optional<AppliedOffer>& offer, const GroupState* group,
                         std::optional<std::uint64_t> presetID, int timeRate) {
    Record record;
    record.id = presetID.value_or(nextID);
    nextID = std::max(nextID, record.id + 1);
    record.productID = product.productID;
    record.kind = product.kind;
    record.groupID = product.kind == Kind::autoRenewable ? product.subscriptionGroupID : "";
    const auto front = storefront();
    auto& p = record.payload;
    p["transactionId"] = std::to_string(record.id);
    p["originalTransactionId"] = std::to_string(group ? group->originalID : record.id);
    if (product.kind == Kind::autoRenewable) {
      p["webOrderLineItemId"] = std::to_string(nextWebOrderLineItemID++);
    }
    p["bundleId"] = bundleID;
    p["productId"] = product.productID;
    if (product.kind == Kind::autoRenewable) p["subscriptionGroupIdentifier"] = product.subscriptionGroupID;
    p["purchaseDate"] = platform::millisecondsSince1970(purchaseDate);
    p["originalPurchaseDate"] =
        platform::millisecondsSince1970(group ? group->originalPurchaseDate : purchaseDate);
    if (product.kind == Kind::autoRenewable) {
      const auto& period = offer ? offer->terms.period : product.period;
      p["expiresDate"] = platform::millisecondsSince1970(periodEnd(purchaseDate, period, timeRate));
    }
    p["quantity"] = request.quantity;
    p["type"] = typeOfKind(product.kind).rawValue;
    if (request.appAccountToken) p["appAccountToken"] = lowercase(request.appAccountToken->uuidString());
    p["inAppOwnershipType"] = Transaction::OwnershipType::purchased().rawValue;
    p["signedDate"] = platform::millisecondsSince1970(now());
    if (offer) {
      p["offerType"] = offer->type;
      if (offer->id) p["offerIdentifier"] = *offer->id;
      p["offerDiscountType"] = paymentModeOf(offer->terms.paymentMode).rawValue;
      auto whole = offer->terms.period;
      whole.value *= offer->terms.numberOfPeriods;
      p["offerPeriod"] = whole.isoString();
    }
    p["environment"] = Environment::xcode().rawValue;
    p["transactionReason"] = reason.rawValue;
    p["storefront"] = front.countryCode;
    p["storefrontId"] = front.id;
    const auto unitPrice = offer ? offer->terms.price : product.price;
    const auto total = unitPrice.multipliedBy(request.quantity);
    const auto thousandths = total ? total->scaledByPowerOfTen(3) : std::nullopt;
    if (const auto value = thousandths ? thousandths->toInt64() : std::nullopt) p["price"] = *value;
    p["currency"] = front.currency;
    p["appTransactionId"] = appTransactionID;
    const auto nonce = platform::UUID::random();
    p["deviceVerification"] = platform::base64Encode(deviceVerificationFor(nonce, deviceID));
    p["deviceVerificationNonce"] = lowercase(nonce.uuidString());
    records.push_back(std::move(record));
    return records.back();
  }

  // Turns a request into a transaction (or finds the one that already covers it). Sets
  // `created` when a new transaction was made.
  Entry completePurchase(const ConfiguredProduct& product, const PurchaseRequest& request,
                         std::optional<std::uint64_t> presetID, const SigningAuthority& authority,
                         bool& created) {
    created = false;
    const auto purchaseDate = now();
    const int rate = settings.timeRate;
    if (product.kind == Kind::nonConsumable) {
      for (const auto& existing : records) {
        if (existing.purchased() && existing.productID == product.productID && !existing.revoked()) {
          return entryOf(existing);
        }
      }
    }
    if (product.kind != Kind::autoRenewable) {
      if (request.offer) throw PurchaseError(PurchaseError::Code::ineligibleForOffer);
      auto& record = newTransaction(product, request, Transaction::Reason::purchase(), purchaseDate,
                                    std::nullopt, nullptr, presetID, rate);
      sign(record, authority);
      created = true;
      return entryOf(record);
    }

    const auto found = groups.find(product.subscriptionGroupID);
    GroupState* group = found == groups.end() ? nullptr : &found->second;
    if (group && isActive(*group)) {
      auto* latest = record(group->latestID);
      if (latest->productID == product.productID) return entryOf(*latest);
      const auto* current = configuration.product(latest->productID);
      const auto currentLevel = current ? current->groupLevel : product.groupLevel;
      if (product.groupLevel > currentLevel) {
        // A move to a lower tier waits for the next renewal.
        group->pendingProductID = product.productID;
        group->autoRenew = true;
        return entryOf(*latest);
      }
      latest->payload["isUpgraded"] = true;
      sign(*latest, authority);
      auto& record = newTransaction(product, request, Transaction::Reason::purchase(), purchaseDate,
                                    request.offer, group, presetID, rate);
      sign(record, authority);
      group->latestID = record.id;
      group->autoRenew = true;
      group->pendingProductID.reset();
      group->offerPeriodsLeft = 0;
      group->continuingOffer.reset();
      created = true;
      wake = true;
      return entryOf(record);
    }

    auto offer = request.offer;
    if (offer && offer->type == 4 && !group) throw PurchaseError(PurchaseError::Code::ineligibleForOffer);
    // The introductory offer goes with the first subscription in a group only.
    if (!offer && !group && product.introductoryOffer) {
      offer = AppliedOffer{1, std::nullopt, *product.introductoryOffer};
    }
    auto& record = newTransaction(product, request, Transaction::Reason::purchase(), purchaseDate,
                                  offer, group, presetID, rate);
    sign(record, authority);
    if (!group) {
      group = &groups[product.subscriptionGroupID];
      group->originalID = record.id;
      group->originalPurchaseDate = purchaseDate;
    }
    group->latestID = record.id;
    group->autoRenew = true;
    group->pendingProductID.reset();
    group->offerPeriodsLeft =
        offer && offer->terms.paymentMode == ConfiguredOffer::Mode::payAsYouGo ? offer->terms.numberOfPeriods - 1 : 0;
    group->continuingOffer = group->offerPeriodsLeft > 0 ? offer : std::nullopt;
    created = true;
    wake = true;
    return entryOf(record);
  }

  std::optional<Entry> renew(GroupState& group, platform::Date purchaseDate,
                             const SigningAuthority& authority) {
    const auto* latest = record(group.latestID);
    if (!latest) return std::nullopt;
    const auto* product = configuration.product(group.pendingProductID.value_or(latest->productID));
    if (!product || product->kind != Kind::autoRenewable) {
      group.autoRenew = false;
      return std::nullopt;
    }
    PurchaseRequest request;
    request.productID = product->productID;
    if (auto token = latest->transaction ? latest->transaction->appAccountToken() : std::nullopt) {
      request.appAccountToken = token;
    }
    std::optional<AppliedOffer> offer;
    if (group.offerPeriodsLeft > 0 && group.continuingOffer &&
        group.continuingOffer->terms.paymentMode == ConfiguredOffer::Mode::payAsYouGo) {
      offer = group.continuingOffer;
      // A renewal bills one discounted period at a time.
      offer->terms.numberOfPeriods = 1;
      --group.offerPeriodsLeft;
    }
    auto& record = newTransaction(*product, request, Transaction::Reason::renewal(), purchaseDate,
                                  offer, &group, std::nullopt, settings.timeRate);
    sign(record, authority);
    group.latestID = record.id;
    group.pendingProductID.reset();
    return entryOf(record);
  }

  std::vector<Entry> renewDue(const SigningAuthority& authority) {
    std::vector<Entry> renewed;
    const auto current = now();
    for (auto& [id, group] : groups) {
      for (int i = 0; i < kMaxRenewalsPerCatchUp && group.autoRenew; ++i) {
        const auto* latest = record(group.latestID);
        if (!latest || latest->revoked() || latest->upgraded()) break;
        const auto expires = latest->expires();
        if (!expires || *expires > current) break;
        auto entry = renew(group, *expires, authority);
        if (!entry) break;
        renewed.push_back(std::move(*entry));
      }
    }
    return renewed;
  }

  std::optional<platform::Date> nextRenewal() {
    std::optional<platform::Date> next;
    for (const auto& [id, group] : groups) {
      if (!group.autoRenew) continue;
      const auto* latest = record(group.latestID);
      if (!latest || latest->revoked() || latest->upgraded()) continue;
      if (const auto expires = latest->expires(); expires && (!next || *expires < *next)) next = expires;
    }
    return next;
  }

  void broadcast(const std::vector<Entry>& entries) {
    if (entries.empty()) return;
    std::erase_if(subscribers, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : subscribers) {
      const auto queue = weak.lock();
      if (!queue) continue;
      {
        std::lock_guard lock(queue->mutex);
        queue->items.insert(queue->items.end(), entries.begin(), entries.end());
      }
      queue->ready.notify_all();
    }
  }

  GroupState* groupOf(std::uint64_t transactionID) {
    const auto* found = record(transactionID);
    if (!found || found->groupID.empty()) return nullptr;
    const auto it = groups.find(found->groupID);
    return it == groups.end() ? nullptr : &it->second;
  }

  GroupState* groupWithLatestProduct(const std::string& productID) {
    for (auto& [id, group] : groups) {
      const auto* latest = record(group.latestID);
      if (latest && latest->productID == productID) return &group;
    }
    return nullptr;
  }

  void applySettings(const StoreSettings& newSettings) {
    settings = newSettings;
    simulatedErrors.clear();
    for (const auto& [api, error] : settings.simulatedErrors) simulatedErrors.insert_or_assign(api, error);
  }
};

class LocalStore::SnapshotSource : public TransactionSequence::Source {
 public:
  SnapshotSource(std::shared_ptr<LocalStore> store, std::vector<Entry> entries)
      : store_(std::move(store)), entries_(std::move(entries)) {}

  std::optional<VerificationResult<Transaction>> next(std::stop_token stop) override {
    if (stop.stop_requested() || index_ >= entries_.size()) return std::nullopt;
    // Each entry is handed out once, so its copy of the signed token goes as soon as it is
    // delivered: reading a long history does not hold every token one more time to its end.
    const Entry entry = std::move(entries_[index_++]);
    return store_->deliver(entry);
  }

 private:
  std::shared_ptr<LocalStore> store_;
  std::vector<Entry> entries_;
  std::size_t index_ = 0;
};

class LocalStore::UpdatesSource : public TransactionSequence::Source {
 public:
  UpdatesSource(std::shared_ptr<LocalStore> store, std::shared_ptr<UpdateQueue> queue)
      : store_(std::move(store)), queue_(std::move(queue)) {}

  std::optional<VerificationResult<Transaction>> next(std::stop_token stop) override {
    Entry entry;
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
      entry = std::move(queue_->items.front());
      queue_->items.pop_front();
    }
    return store_->deliver(entry);
  }

 private:
  std::shared_ptr<LocalStore> store_;
  std::shared_ptr<UpdateQueue> queue_;
};

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
}  // namespace

std::shared_ptr<LocalStore> LocalStore::shared() {
  std::lock_guard lock(sharedMutex());
  if (!sharedStore()) {
    const char* path = std::getenv("VORNTESK_STOREKIT_CONFIG");
    if (path && *path) {
      try {
        sharedStore() = createFromFile(path);
      } catch (const ConfigurationError& error) {
        std::fprintf(stderr, "StoreKit: configuration refused: %s\n", error.what());
      }
    }
    if (!sharedStore()) sharedStore() = create();
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
  return std::shared_ptr<LocalStore>(new LocalStore(std::move(configuration), std::move(authority)));
}

std::shared_ptr<LocalStore> LocalStore::createFromFile(const std::string& path) {
  return create(StoreConfiguration::load(path));
}

LocalStore::LocalStore(StoreConfiguration configuration, std::shared_ptr<const SigningAuthority> authority)
    : authority_(std::move(authority)), state_(std::make_unique<State>()) {
  const auto& bytes = state_->deviceID.bytes();
  std::uint64_t number = 0;
  for (int i = 0; i < 6; ++i) number = (number << 8) | bytes[static_cast<std::size_t>(i)];
  state_->appTransactionID = std::to_string(700000000000000ULL + number % 100000000000000ULL);
  loadConfiguration(std::move(configuration));
  renewalThread_ = std::jthread([this](std::stop_token stop) { renewalLoop(stop); });
}

LocalStore::~LocalStore() {
  renewalThread_.request_stop();
  if (renewalThread_.joinable()) renewalThread_.join();
}

void LocalStore::renewalLoop(std::stop_token stop) {
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    state_->wake = false;
    const auto due = state_->nextRenewal();
    if (due) {
      const auto wait = std::max(milliseconds(0), *due - state_->now());
      timerChanged_.wait_for(lock, stop, wait, [&] { return state_->wake; });
    } else {
      timerChanged_.wait(lock, stop, [&] { return state_->wake; });
    }
    if (stop.stop_requested()) break;
    state_->broadcast(state_->renewDue(*authority_));
  }
}

// --- StoreKit calls --------------------------------------------------------------------------

std::vector<Product> LocalStore::products(const std::vector<std::string>& ids) {
  std::lock_guard lock(mutex_);
  state_->throwIfSimulated(StoreKitAPI::loadProducts);
  std::vector<Product> result;
  for (const auto& configured : state_->configuration.products) {
    const auto count = std::count(ids.begin(), ids.end(), configured.productID);
    for (std::ptrdiff_t i = 0; i < count; ++i) result.push_back(state_->makeProduct(configured));
  }
  return result;
}

PurchaseResult LocalStore::purchase(const std::string& productID,
                                    const std::vector<PurchaseOption>& options) {
  Entry entry;
  {
    std::lock_guard lock(mutex_);
    auto& state = *state_;
    state.throwIfSimulated(StoreKitAPI::purchase);
    if (state.settings.failTransactionsEnabled) throw StoreKitError::unknown();
    const auto* product = state.configuration.product(productID);
    if (!product) throw PurchaseError(PurchaseError::Code::productUnavailable);
    auto request = state.makeRequest(*product, options);
    if (const auto next = std::exchange(state.nextPurchase, std::nullopt)) {
      if (*next == NextPurchaseResult::userCancelled) return {PurchaseResult::UserCancelled{}};
      return {PurchaseResult::Other{"unrecognized"}};
    }
    if (state.settings.askToBuyEnabled || request.askToBuy ||
        state.settings.interruptedPurchasesEnabled) {
      Record record;
      record.id = state.nextID++;
      record.productID = productID;
      record.kind = product->kind;
      record.request = std::move(request);
      const bool interrupted = !(state.settings.askToBuyEnabled || record.request.askToBuy);
      record.state = interrupted ? TestTransaction::State::interrupted
                                 : TestTransaction::State::pendingAskToBuy;
      state.records.push_back(std::move(record));
      // An interrupted purchase fails in the app; it completes later, outside it.
      if (interrupted) return {PurchaseResult::UserCancelled{}};
      return {PurchaseResult::Pending{}};
    }
    bool created = false;
    entry = state.completePurchase(*product, request, std::nullopt, *authority_, created);
  }
  timerChanged_.notify_all();
  return {PurchaseResult::Success{deliver(entry)}};
}

void LocalStore::finish(std::uint64_t transactionID) {
  std::lock_guard lock(mutex_);
  if (auto* record = state_->record(transactionID); record && record->purchased()) record->finished = true;
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

TransactionSequence LocalStore::updates() {
  auto queue = std::make_shared<UpdateQueue>();
  std::lock_guard lock(mutex_);
  if (!state_->updatesStarted) {
    // The first listener of the process also hears about what was left unfinished.
    state_->updatesStarted = true;
    for (const auto& record : state_->records) {
      if (record.purchased() && !record.finished) queue->items.push_back(state_->entryOf(record));
    }
  }
  state_->subscribers.push_back(queue);
  return TransactionSequence(std::make_shared<UpdatesSource>(
      shared_from_this(), std::move(queue)));
}

bool LocalStore::waitUntilUpdatesDelivered(std::chrono::milliseconds timeout,
                                           std::size_t minimumListeners) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::vector<std::shared_ptr<UpdateQueue>> queues;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      for (const auto& weak : state_->subscribers) {
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

TransactionSequence LocalStore::all() { return snapshot(0); }
TransactionSequence LocalStore::currentEntitlements() { return snapshot(1); }
TransactionSequence LocalStore::unfinished() { return snapshot(2); }

TransactionSequence LocalStore::snapshot(int which) {
  std::vector<Entry> entries;
  {
    std::lock_guard lock(mutex_);
    auto& state = *state_;
    const auto now = state.now();
    for (const auto& record : state.records) {
      if (!record.purchased()) continue;
      bool include = false;
      switch (which) {
        case 0: include = !(record.kind == Kind::consumable && record.finished); break;
        case 2: include = !record.finished; break;
        default: {
          if (record.revoked()) break;
          if (record.kind == Kind::nonConsumable) {
            include = true;
          } else if (record.kind == Kind::nonRenewable || record.kind == Kind::autoRenewable) {
            // The latest per product (non-renewing) or per group (auto-renewable).
            const bool renewable = record.kind == Kind::autoRenewable;
            include = std::none_of(state.records.begin(), state.records.end(), [&](const Record& other) {
              return &other != &record && other.purchased() && !other.revoked() && other.kind == record.kind &&
                     (renewable ? other.groupID == record.groupID : other.productID == record.productID) &&
                     (other.purchaseDate() > record.purchaseDate() ||
                      (other.purchaseDate() == record.purchaseDate() && other.id > record.id));
            });
            if (renewable) {
              const auto expires = record.expires();
              include = include && !record.upgraded() && expires && *expires > now;
            }
          }
        }
      }
      if (include) entries.push_back(state.entryOf(record));
    }
  }
  return TransactionSequence(std::make_shared<SnapshotSource>(shared_from_this(), std::move(entries)));
}

VerificationResult<Transaction> LocalStore::deliver(const Entry& entry) {
  std::optional<VerificationError> forced;
  platform::UUID device{platform::UUID::Bytes{}};
  {
    std::lock_guard lock(mutex_);
    if (const auto it = state_->verificationFailures.find(entry.id); it != state_->verificationFailures.end()) {
      forced = it->second;
    } else if (const auto sim = state_->simulatedErrors.find(StoreKitAPI::verification);
               sim != state_->simulatedErrors.end()) {
      if (const auto* error = std::get_if<VerificationError>(&sim->second)) forced = *error;
    }
    device = state_->deviceID;
  }
  // What an unverified result carries: the payload the token claims, else the stored one.
  auto claimed = [&]() -> Transaction {
    if (const auto payload = decodeJWSPayload(entry.jws)) {
      try {
        return Transaction::fromJSON(*payload);
      } catch (const VerificationError&) {
      }
    }
    if (entry.transaction) return *entry.transaction;
    throw VerificationError(VerificationError::Code::invalidEncoding);
  };
  if (forced) return VerificationResult<Transaction>::unverified(claimed(), *forced, entry.jws);
  try {
    auto transaction = Transaction::fromJSON(verifyJWS(entry.jws, authority_->rootCertificate()));
    const auto* stored = transaction.payload().if_contains("deviceVerification");
    if (stored && transaction.deviceVerification() !=
                      deviceVerificationFor(transaction.deviceVerificationNonce(), device)) {
      throw VerificationError(VerificationError::Code::invalidDeviceVerification);
    }
    return VerificationResult<Transaction>::verified(std::move(transaction), entry.jws);
  } catch (const VerificationError& error) {
    return VerificationResult<Transaction>::unverified(claimed(), error, entry.jws);
  }
}

VerificationResult<Transaction> LocalStore::verifyTransaction(std::string_view jws) {
  return deliver(Entry{0, std::string(jws), std::nullopt});
}

// --- Configuration ----------------------------------------------------------------------------

void LocalStore::loadConfiguration(StoreConfiguration configuration) {
  if (!storefrontForCountry(configuration.settings.storefront)) {
    throw ConfigurationError("settings._storefront: unknown storefront \"" +
                             configuration.settings.storefront + "\"");
  }
  {
    std::lock_guard lock(mutex_);
    state_->applySettings(configuration.settings);
    state_->configuration = std::move(configuration);
    state_->wake = true;
  }
  timerChanged_.notify_all();
}

std::string LocalStore::bundleID() const {
  std::lock_guard lock(mutex_);
  return state_->bundleID;
}

void LocalStore::setBundleID(std::string bundleID) {
  std::lock_guard lock(mutex_);
  state_->bundleID = std::move(bundleID);
}

platform::UUID LocalStore::deviceIdentifier() const {
  std::lock_guard lock(mutex_);
  return state_->deviceID;
}

// --- Controls -------------------------------------------------------------------------------

bool LocalStore::askToBuyEnabled() const {
  std::lock_guard lock(mutex_);
  return state_->settings.askToBuyEnabled;
}
void LocalStore::setAskToBuyEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  state_->settings.askToBuyEnabled = enabled;
}
bool LocalStore::interruptedPurchasesEnabled() const {
  std::lock_guard lock(mutex_);
  return state_->settings.interruptedPurchasesEnabled;
}
void LocalStore::setInterruptedPurchasesEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  state_->settings.interruptedPurchasesEnabled = enabled;
}
bool LocalStore::failTransactionsEnabled() const {
  std::lock_guard lock(mutex_);
  return state_->settings.failTransactionsEnabled;
}
void LocalStore::setFailTransactionsEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  state_->settings.failTransactionsEnabled = enabled;
}
int LocalStore::timeRate() const {
  std::lock_guard lock(mutex_);
  return state_->settings.timeRate;
}
void LocalStore::setTimeRate(int rate) {
  std::lock_guard lock(mutex_);
  state_->settings.timeRate = rate;
}
std::string LocalStore::storefront() const {
  std::lock_guard lock(mutex_);
  return state_->settings.storefront;
}
void LocalStore::setStorefront(const std::string& countryCode) {
  const auto known = storefrontForCountry(countryCode);
  if (!known) invalid("unknown storefront \"" + countryCode + "\"");
  std::lock_guard lock(mutex_);
  state_->settings.storefront = known->countryCode;
}
std::string LocalStore::locale() const {
  std::lock_guard lock(mutex_);
  return state_->settings.locale;
}
void LocalStore::setLocale(const std::string& locale) {
  std::lock_guard lock(mutex_);
  state_->settings.locale = locale;
}

std::vector<TestTransaction> LocalStore::allTransactions() const {
  std::lock_guard lock(mutex_);
  std::vector<TestTransaction> result;
  for (const auto& record : state_->records) {
    TestTransaction entry;
    entry.identifier = record.id;
    entry.productIdentifier = record.productID;
    entry.state = record.state;
    entry.pendingAskToBuyConfirmation = record.state == TestTransaction::State::pendingAskToBuy;
    entry.hasPurchaseIssue = record.state == TestTransaction::State::interrupted;
    entry.finished = record.finished;
    entry.revoked = record.revoked();
    if (record.purchased()) {
      entry.transaction = record.transaction;
      entry.jwsRepresentation = record.jws;
      entry.purchaseDate = record.purchaseDate();
      entry.expirationDate = record.expires();
      if (record.transaction) entry.originalTransactionIdentifier = record.transaction->originalID();
      if (const auto it = state_->groups.find(record.groupID); it != state_->groups.end()) {
        entry.autoRenewingEnabled = it->second.autoRenew && it->second.latestID == record.id;
      }
    }
    result.push_back(std::move(entry));
  }
  return result;
}

void LocalStore::clearTransactions() {
  std::lock_guard lock(mutex_);
  state_->records.clear();
  state_->groups.clear();
  state_->verificationFailures.clear();
  state_->wake = true;
  timerChanged_.notify_all();
}

void LocalStore::deleteTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  const auto before = state_->records.size();
  std::erase_if(state_->records, [&](const Record& record) { return record.id == identifier; });
  if (state_->records.size() == before) invalid("no transaction " + std::to_string(identifier));
  std::erase_if(state_->groups, [&](const auto& item) { return item.second.latestID == identifier; });
  state_->wake = true;
  timerChanged_.notify_all();
}

void LocalStore::resetToDefaultState() {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  state.applySettings(state.configuration.settings);
  state.records.clear();
  state.groups.clear();
  state.verificationFailures.clear();
  state.storefrontAvailable = true;
  state.nextPurchase.reset();
  state.clockOffset = milliseconds(0);
  state.wake = true;
  timerChanged_.notify_all();
}

Transaction LocalStore::buyProduct(const std::string& productID,
                                   const std::vector<PurchaseOption>& options) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto* product = state.configuration.product(productID);
  if (!product) throw PurchaseError(PurchaseError::Code::productUnavailable);
  bool created = false;
  auto entry = state.completePurchase(*product, state.makeRequest(*product, options), std::nullopt,
                                      *authority_, created);
  if (created) state.broadcast({entry});
  timerChanged_.notify_all();
  return *entry.transaction;
}

Transaction LocalStore::redeemOfferCode(const std::string& productID, const std::string& offerID) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto* product = state.configuration.product(productID);
  if (!product) throw PurchaseError(PurchaseError::Code::productUnavailable);
  const auto it = std::find_if(product->codeOffers.begin(), product->codeOffers.end(), [&](const auto& offer) {
    return offer.offerID == offerID || offer.referenceName == offerID || offer.internalID == offerID;
  });
  if (it == product->codeOffers.end()) throw PurchaseError(PurchaseError::Code::invalidOfferIdentifier);
  PurchaseRequest request;
  request.productID = productID;
  request.offer = AppliedOffer{3, it->offerID.value_or(offerID), *it};
  bool created = false;
  auto entry = state.completePurchase(*product, request, std::nullopt, *authority_, created);
  if (created) state.broadcast({entry});
  timerChanged_.notify_all();
  return *entry.transaction;
}

void LocalStore::approveAskToBuyTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto* record = state.record(identifier);
  if (!record || record->state != TestTransaction::State::pendingAskToBuy) {
    invalid("no pending ask-to-buy request " + std::to_string(identifier));
  }
  const auto request = record->request;
  std::erase_if(state.records, [&](const Record& r) { return r.id == identifier; });
  const auto* product = state.configuration.product(request.productID);
  if (!product) invalid("the product of request " + std::to_string(identifier) + " is gone");
  bool created = false;
  auto entry = state.completePurchase(*product, request, identifier, *authority_, created);
  if (created) state.broadcast({entry});
  timerChanged_.notify_all();
}

void LocalStore::declineAskToBuyTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto* record = state_->record(identifier);
  if (!record || record->state != TestTransaction::State::pendingAskToBuy) {
    invalid("no pending ask-to-buy request " + std::to_string(identifier));
  }
  record->state = TestTransaction::State::declined;
}

void LocalStore::resolveIssueForTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto* record = state.record(identifier);
  if (!record || record->state != TestTransaction::State::interrupted) {
    invalid("no interrupted purchase " + std::to_string(identifier));
  }
  const auto request = record->request;
  std::erase_if(state.records, [&](const Record& r) { return r.id == identifier; });
  const auto* product = state.configuration.product(request.productID);
  if (!product) invalid("the product of purchase " + std::to_string(identifier) + " is gone");
  bool created = false;
  auto entry = state.completePurchase(*product, request, identifier, *authority_, created);
  if (created) state.broadcast({entry});
  timerChanged_.notify_all();
}

void LocalStore::refundTransaction(std::uint64_t identifier, Transaction::RevocationReason reason) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto* record = state.record(identifier);
  if (!record || !record->purchased()) invalid("no transaction " + std::to_string(identifier));
  if (record->revoked()) invalid("transaction " + std::to_string(identifier) + " is already refunded");
  record->payload["revocationDate"] = platform::millisecondsSince1970(state.now());
  record->payload["revocationReason"] = reason.rawValue;
  state.sign(*record, *authority_);
  if (auto* group = state.groupOf(identifier); group && group->latestID == identifier) group->autoRenew = false;
  state.broadcast({state.entryOf(*record)});
}

void LocalStore::expireSubscription(const std::string& productID) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto* group = state.groupWithLatestProduct(productID);
  if (!group || !state.isActive(*group)) invalid("no active subscription to " + productID);
  auto* latest = state.record(group->latestID);
  latest->payload["expiresDate"] = platform::millisecondsSince1970(state.now());
  state.sign(*latest, *authority_);
  group->autoRenew = false;
  state.wake = true;
  timerChanged_.notify_all();
}

void LocalStore::forceRenewalOfSubscription(const std::string& productID) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto* group = state.groupWithLatestProduct(productID);
  if (!group) invalid("no subscription to " + productID);
  auto entry = state.renew(*group, state.now(), *authority_);
  if (!entry) invalid(productID + " can no longer renew");
  group->autoRenew = true;
  state.broadcast({*entry});
  state.wake = true;
  timerChanged_.notify_all();
}

void LocalStore::disableAutoRenewForTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto* group = state_->groupOf(identifier);
  if (!group) invalid("transaction " + std::to_string(identifier) + " is not an auto-renewable subscription");
  group->autoRenew = false;
  state_->wake = true;
  timerChanged_.notify_all();
}

void LocalStore::enableAutoRenewForTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto* group = state_->groupOf(identifier);
  if (!group) invalid("transaction " + std::to_string(identifier) + " is not an auto-renewable subscription");
  group->autoRenew = true;
  state_->wake = true;
  timerChanged_.notify_all();
}

void LocalStore::setSimulatedError(StoreKitAPI api, std::optional<SimulatedError> error) {
  if (error) {
    const bool verification = std::holds_alternative<VerificationError>(*error);
    if (verification != (api == StoreKitAPI::verification) ||
        (std::holds_alternative<PurchaseError>(*error) && api != StoreKitAPI::purchase)) {
      invalid("this error cannot be simulated for that call");
    }
  }
  std::lock_guard lock(mutex_);
  if (error) {
    state_->simulatedErrors.insert_or_assign(api, std::move(*error));
  } else {
    state_->simulatedErrors.erase(api);
  }
}

void LocalStore::setVerificationFailure(std::uint64_t identifier, std::optional<VerificationError> error) {
  std::lock_guard lock(mutex_);
  if (error) {
    state_->verificationFailures.insert_or_assign(identifier, std::move(*error));
  } else {
    state_->verificationFailures.erase(identifier);
  }
}

void LocalStore::setStorefrontAvailable(bool available) {
  std::lock_guard lock(mutex_);
  state_->storefrontAvailable = available;
}

void LocalStore::setNextPurchaseResult(std::optional<NextPurchaseResult> result) {
  std::lock_guard lock(mutex_);
  state_->nextPurchase = result;
}

platform::Date LocalStore::now() const {
  std::lock_guard lock(mutex_);
  return state_->now();
}

void LocalStore::advanceTime(milliseconds amount) {
  std::lock_guard lock(mutex_);
  state_->clockOffset += amount;
  state_->broadcast(state_->renewDue(*authority_));
  state_->wake = true;
  timerChanged_.notify_all();
}

void LocalStore::advanceTime(double seconds) {
  advanceTime(milliseconds(static_cast<std::int64_t>(seconds * 1000.0)));
}

// --- For tests --------------------------------------------------------------------------------

Transaction LocalStore::insertTransaction(json::object payload) {
  auto transaction = Transaction::fromPayload(payload);
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  Record record;
  record.id = transaction.id();
  record.productID = transaction.productID();
  record.kind = kindOfType(transaction.productType().rawValue);
  record.groupID = transaction.subscriptionGroupID().value_or("");
  record.payload = std::move(payload);
  record.jws = authority_->sign(json::serialize(record.payload));
  record.transaction = transaction;
  state.nextID = std::max(state.nextID, record.id + 1);
  state.records.push_back(std::move(record));
  return transaction;
}

void LocalStore::replaceSignedTransaction(std::uint64_t identifier, std::string jws) {
  std::lock_guard lock(mutex_);
  auto* record = state_->record(identifier);
  if (!record || !record->purchased()) invalid("no transaction " + std::to_string(identifier));
  record->jws = std::move(jws);
}

std::string LocalStore::signedTransaction(std::uint64_t identifier, const Environment& environment) {
  std::lock_guard lock(mutex_);
  auto* record = state_->record(identifier);
  if (!record || !record->purchased()) invalid("no transaction " + std::to_string(identifier));
  auto payload = record->payload;
  payload["environment"] = environment.rawValue;
  return authority_->sign(json::serialize(payload));
}

}  // namespace storekit
