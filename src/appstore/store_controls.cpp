#include "appstore/store_controls.h"

#include "platform/base64.h"
#include "platform/date.h"
#include "platform/decimal.h"
#include "platform/system_version.h"
#include "platform/uuid.h"
#include "appstore/local_store.h"
#include "appstore/order_ids.h"

#include <boost/json/parse.hpp>
#include <boost/json/value_from.hpp>

#include <functional>
#include <limits>
#include <map>

namespace appstore {

namespace {

using boost::json::object;

// Typed access to a control's arguments with messages that name the argument.
class Arguments {
 public:
  explicit Arguments(const object& members) : members_(members) {}

  const boost::json::value* find(std::string_view key) const {
    const auto* value = members_.if_contains(key);
    return value == nullptr || value->is_null() ? nullptr : value;
  }
  bool has(std::string_view key) const { return find(key) != nullptr; }

  std::string string(std::string_view key) const {
    const auto* value = require(key);
    if (!value->is_string()) fail(key, "a string");
    return std::string(value->get_string());
  }
  bool boolean(std::string_view key) const {
    const auto* value = require(key);
    if (!value->is_bool()) fail(key, "true or false");
    return value->get_bool();
  }
  std::uint64_t identifier(std::string_view key) const {
    const auto* value = require(key);
    if (value->is_uint64()) return value->get_uint64();
    if (value->is_int64() && value->get_int64() >= 0) return static_cast<std::uint64_t>(value->get_int64());
    fail(key, "a transaction identifier (an unsigned integer)");
  }
  std::int64_t integer(std::string_view key) const {
    const auto* value = require(key);
    if (!value->is_int64()) fail(key, "an integer");
    return value->get_int64();
  }
  double number(std::string_view key) const {
    const auto* value = require(key);
    if (value->is_int64()) return static_cast<double>(value->get_int64());
    if (value->is_uint64()) return static_cast<double>(value->get_uint64());
    if (value->is_double()) return value->get_double();
    fail(key, "a number");
  }

 private:
  const boost::json::value* require(std::string_view key) const {
    const auto* value = find(key);
    if (value == nullptr) throw ControlError("missing argument \"" + std::string(key) + "\"");
    return value;
  }
  [[noreturn]] static void fail(std::string_view key, std::string_view expected) {
    throw ControlError("argument \"" + std::string(key) + "\" must be " + std::string(expected));
  }
  const object& members_;
};

std::string stateName(TestTransaction::State state) {
  switch (state) {
    case TestTransaction::State::purchased: return "purchased";
    case TestTransaction::State::pendingAskToBuy: return "pendingAskToBuy";
    case TestTransaction::State::declined: return "declined";
    case TestTransaction::State::interrupted: return "interrupted";
  }
  return "unknown";
}

object describe(const TestTransaction& entry) {
  object out;
  out["identifier"] = entry.identifier;
  out["productIdentifier"] = entry.productIdentifier;
  out["state"] = stateName(entry.state);
  out["pendingAskToBuyConfirmation"] = entry.pendingAskToBuyConfirmation;
  out["hasPurchaseIssue"] = entry.hasPurchaseIssue;
  out["finished"] = entry.finished;
  out["revoked"] = entry.revoked;
  out["autoRenewingEnabled"] = entry.autoRenewingEnabled;
  if (entry.originalTransactionIdentifier) {
    out["originalTransactionIdentifier"] = *entry.originalTransactionIdentifier;
  }
  if (entry.state == TestTransaction::State::purchased && !entry.familyShared) {
    out["orderID"] = orderIDForTransaction(entry.identifier);
  }
  if (entry.purchaseDate) out["purchaseDate"] = platform::formatRFC3339(*entry.purchaseDate);
  if (entry.expirationDate) out["expirationDate"] = platform::formatRFC3339(*entry.expirationDate);
  return out;
}

// buyProduct's request: productID, quantity, appAccountToken, promotionalOfferID, signature.
PurchaseRequest purchaseRequest(const Arguments& arguments) {
  PurchaseRequest request;
  request.productID = arguments.string("productID");
  if (arguments.has("quantity")) request.quantity = arguments.integer("quantity");
  if (arguments.has("appAccountToken")) {
    request.appAccountToken = platform::UUID::fromString(arguments.string("appAccountToken"));
    if (!request.appAccountToken) throw ControlError("argument \"appAccountToken\" must be a UUID");
  }
  if (arguments.has("promotionalOfferID")) {
    // Bought outside the app, the offer is the App Store's to grant: the signature an app
    // would have from its server is not needed, but a well-formed one is still passed on, or
    // the one given.
    const auto signature = arguments.has("signature") ? arguments.string("signature")
                                                      : platform::base64Encode(std::string(64, '\0'));
    request.promotionalOffer = {arguments.string("promotionalOfferID"), "local-key",
                                platform::UUID::random(), signature, 0};
  }
  return request;
}

const char* extensionRefusalName(RenewalExtensionRefused::Reason reason) {
  using Reason = RenewalExtensionRefused::Reason;
  switch (reason) {
    case Reason::invalidExtendByDays: return "invalidExtendByDays";
    case Reason::invalidExtendReasonCode: return "invalidExtendReasonCode";
    case Reason::invalidRequestIdentifier: return "invalidRequestIdentifier";
    case Reason::invalidProductID: return "invalidProductID";
    case Reason::emptyStorefrontList: return "emptyStorefrontList";
    case Reason::invalidStorefront: return "invalidStorefront";
    case Reason::notFound: return "notFound";
    case Reason::ineligible: return "ineligible";
    case Reason::maximumReached: return "maximumReached";
    case Reason::familyShared: return "familyShared";
  }
  return "refused";
}

// The payload of a compact JWS the store signed, as JSON (null if it cannot be read).
boost::json::value jwsPayload(const std::string& jws) {
  const auto first = jws.find('.'), last = jws.rfind('.');
  if (first == std::string::npos || first == last) return nullptr;
  const auto text = platform::base64URLDecode(jws.substr(first + 1, last - first - 1));
  boost::json::error_code ec;
  auto parsed = text ? boost::json::parse(*text, ec) : boost::json::value();
  return ec ? boost::json::value() : parsed;
}

StoreFailure simulatedError(const std::string& name) {
  const auto error = StoreFailure::named(name);
  if (!error) throw ControlError("unknown error \"" + name + "\"");
  return *error;
}

struct Control {
  ControlHelp help;
  std::function<object(LocalStore&, const Arguments&)> run;
};

// A control that reads a setting, or sets it when "value" is given.
template <class Getter, class Setter, class Read>
Control setting(std::string name, std::string kind, std::string summary, std::string example,
                Getter get, Setter set, Read read) {
  return Control{{name, "[value: " + kind + "]", std::move(summary), std::move(example)},
                 [get, set, read](LocalStore& store, const Arguments& arguments) {
                   if (arguments.has("value")) set(store, read(arguments));
                   object out;
                   out["value"] = boost::json::value_from(get(store));
                   return out;
                 }};
}

const std::map<std::string, Control, std::less<>>& controls() {
  static const auto* table = [] {
    auto* t = new std::map<std::string, Control, std::less<>>();
    auto add = [t](Control control) { (*t)[control.help.name] = std::move(control); };
    const auto readBool = [](const Arguments& a) { return a.boolean("value"); };
    const auto readString = [](const Arguments& a) { return a.string("value"); };

    add(setting("askToBuyEnabled", "boolean", "purchases wait for a parent's approval",
                R"({"id":1,"store":"askToBuyEnabled","value":true})",
                [](LocalStore& s) { return s.askToBuyEnabled(); },
                [](LocalStore& s, bool v) { s.setAskToBuyEnabled(v); }, readBool));
    add(setting("interruptedPurchasesEnabled", "boolean",
                "purchases stop for a required action and fail",
                R"({"id":1,"store":"interruptedPurchasesEnabled","value":true})",
                [](LocalStore& s) { return s.interruptedPurchasesEnabled(); },
                [](LocalStore& s, bool v) { s.setInterruptedPurchasesEnabled(v); }, readBool));
    add(setting("failTransactionsEnabled", "boolean", "purchases fail with an error",
                R"({"id":1,"store":"failTransactionsEnabled","value":true})",
                [](LocalStore& s) { return s.failTransactionsEnabled(); },
                [](LocalStore& s, bool v) { s.setFailTransactionsEnabled(v); }, readBool));
    add(setting("shouldEnterBillingRetryOnRenewal", "boolean",
                "renewals fail for a billing issue: the subscription enters billing retry",
                R"({"id":1,"store":"shouldEnterBillingRetryOnRenewal","value":true})",
                [](LocalStore& s) { return s.shouldEnterBillingRetryOnRenewal(); },
                [](LocalStore& s, bool v) { s.setShouldEnterBillingRetryOnRenewal(v); }, readBool));
    add(setting("billingGracePeriodIsEnabled", "boolean",
                "a failed renewal starts with a billing grace period, entitled throughout",
                R"({"id":1,"store":"billingGracePeriodIsEnabled","value":true})",
                [](LocalStore& s) { return s.billingGracePeriodIsEnabled(); },
                [](LocalStore& s, bool v) { s.setBillingGracePeriodIsEnabled(v); }, readBool));
    add(setting("timeRate", "integer (SKTestSession.TimeRate raw value)",
                "how fast subscriptions renew (0 real time, 1005 one renewal every 2 s); "
                "unknown rates are refused",
                R"({"id":1,"store":"timeRate","value":1005})",
                [](LocalStore& s) { return s.timeRate(); },
                [](LocalStore& s, std::int64_t v) { s.setTimeRate(v); },
                [](const Arguments& a) { return a.integer("value"); }));
    add(setting("storefront", "string (ISO 3166-1 alpha-3)", "the account's storefront",
                R"({"id":1,"store":"storefront","value":"FRA"})",
                [](LocalStore& s) { return s.storefront(); },
                [](LocalStore& s, const std::string& v) { s.setStorefront(v); }, readString));
    add(setting("locale", "string", "the locale products are described and priced in",
                R"({"id":1,"store":"locale","value":"fr_FR"})",
                [](LocalStore& s) { return s.locale(); },
                [](LocalStore& s, const std::string& v) { s.setLocale(v); }, readString));
    add(setting("bundleID", "string", "the app's bundle identifier in signed transactions",
                R"({"id":1,"store":"bundleID","value":"com.example.app"})",
                [](LocalStore& s) { return s.bundleID(); },
                [](LocalStore& s, const std::string& v) { s.setBundleID(v); }, readString));
    add(setting("osVersion", "string (major.minor)",
                "the simulated system version the service converts for",
                R"({"id":1,"store":"osVersion","value":"17.1"})",
                [](LocalStore&) {
                  return platform::SystemVersion::toString(platform::SystemVersion::current());
                },
                [](LocalStore&, const std::string& v) {
                  const auto version = platform::SystemVersion::parse(v);
                  if (!version) throw ControlError("argument \"value\" must be a version such as 17.2");
                  platform::SystemVersion::set(*version);
                },
                readString));

    add({{"storefrontAvailable", "available: boolean",
          "whether the storefront can be determined at all",
          R"({"id":1,"store":"storefrontAvailable","available":false})"},
         [](LocalStore& s, const Arguments& a) {
           s.setStorefrontAvailable(a.boolean("available"));
           return object{};
         }});
    add({{"allTransactions", "", "the whole history, pending ask-to-buy requests included",
          R"({"id":1,"store":"allTransactions"})"},
         [](LocalStore& s, const Arguments&) {
           boost::json::array list;
           for (const auto& entry : s.allTransactions()) list.push_back(describe(entry));
           return object{{"transactions", std::move(list)}};
         }});
    add({{"clearTransactions", "", "forgets every transaction",
          R"({"id":1,"store":"clearTransactions"})"},
         [](LocalStore& s, const Arguments&) {
           s.clearTransactions();
           return object{};
         }});
    add({{"deleteTransaction", "identifier", "forgets one transaction",
          R"({"id":1,"store":"deleteTransaction","identifier":3})"},
         [](LocalStore& s, const Arguments& a) {
           s.deleteTransaction(a.identifier("identifier"));
           return object{};
         }});
    add({{"resetToDefaultState", "", "settings back to the configuration's; history cleared",
          R"({"id":1,"store":"resetToDefaultState"})"},
         [](LocalStore& s, const Arguments&) {
           s.resetToDefaultState();
           return object{};
         }});
    add({{"buyProduct",
          "productID, [quantity], [appAccountToken], [promotionalOfferID, [signature: Base64]]",
          "a purchase made outside the app, delivered through the update stream",
          R"({"id":1,"store":"buyProduct","productID":"com.example.coins100"})"},
         [](LocalStore& s, const Arguments& a) {
           const auto transaction = s.buyProduct(purchaseRequest(a));
           return object{{"transactionId", transaction.id}};
         }});
    add({{"redeemOfferCode", "productID, offerID",
          "an offer code redeemed outside the app, delivered through the update stream",
          R"({"id":1,"store":"redeemOfferCode","productID":"pro.monthly","offerID":"WELCOME"})"},
         [](LocalStore& s, const Arguments& a) {
           const auto transaction = s.redeemOfferCode(a.string("productID"), a.string("offerID"));
           return object{{"transactionId", transaction.id}};
         }});
    const auto byIdentifier = [&](std::string name, std::string summary,
                                  void (LocalStore::*action)(std::uint64_t)) {
      add({{name, "identifier", std::move(summary),
            R"({"id":1,"store":")" + name + R"(","identifier":2})"},
           [action](LocalStore& s, const Arguments& a) {
             (s.*action)(a.identifier("identifier"));
             return object{};
           }});
    };
    byIdentifier("approveAskToBuyTransaction",
                 "approves a pending request; the purchase arrives through the update stream",
                 &LocalStore::approveAskToBuyTransaction);
    byIdentifier("declineAskToBuyTransaction", "declines a pending request; nothing arrives",
                 &LocalStore::declineAskToBuyTransaction);
    byIdentifier("resolveIssueForTransaction", "clears a billing or interrupted-purchase issue",
                 &LocalStore::resolveIssueForTransaction);
    byIdentifier("disableAutoRenewForTransaction", "the subscription will not renew",
                 &LocalStore::disableAutoRenewForTransaction);
    byIdentifier("enableAutoRenewForTransaction", "the subscription renews again",
                 &LocalStore::enableAutoRenewForTransaction);
    add({{"requestPriceIncreaseConsentForTransaction",
          "identifier, price (decimal text), [consentRequired: boolean, default true]",
          "a price increase from the next renewal; without consent the subscription expires",
          R"({"id":1,"store":"requestPriceIncreaseConsentForTransaction","identifier":2,"price":"3.99"})"},
         [](LocalStore& s, const Arguments& a) {
           const auto price = platform::Decimal::parse(a.string("price"));
           if (!price) throw ControlError("argument \"price\" must be a decimal number as text");
           s.requestPriceIncreaseConsentForTransaction(
               a.identifier("identifier"), *price,
               a.has("consentRequired") ? a.boolean("consentRequired") : true);
           return object{};
         }});
    add({{"shareWithFamily", "productID",
          "a family member shares a family-shareable product: a transaction owned as family "
          "shared, delivered through the update stream; a subscription renews with theirs",
          R"({"id":1,"store":"shareWithFamily","productID":"com.example.album"})"},
         [](LocalStore& s, const Arguments& a) {
           return object{{"transactionId", s.shareWithFamily(a.string("productID")).id}};
         }});
    byIdentifier("revokeFamilySharing",
                 "the family member stops sharing: the transaction is revoked, through the "
                 "updates, and a shared subscription ends",
                 &LocalStore::revokeFamilySharing);
    add({{"consumptionInformation", "identifier",
          "what a developer's server last sent as consumption information for the transaction",
          R"({"id":1,"store":"consumptionInformation","identifier":3})"},
         [](LocalStore& s, const Arguments& a) {
           const auto text = s.consumptionInformation(a.identifier("identifier"));
           return object{{"information", text ? boost::json::parse(*text) : boost::json::value()}};
         }});
    add({{"extendRenewalDate",
          "originalTransactionId, extendByDays (1-90), [extendReasonCode: 0-3], requestIdentifier",
          "moves a subscription's renewal date on, as the App Store Server API's extension does",
          R"({"id":1,"store":"extendRenewalDate","originalTransactionId":1,"extendByDays":7,)"
          R"("requestIdentifier":"outage-1"})"},
         [](LocalStore& s, const Arguments& a) {
           RenewalExtensionRequest request;
           request.originalTransactionID = a.identifier("originalTransactionId");
           request.extendByDays = a.integer("extendByDays");
           if (a.has("extendReasonCode")) request.extendReasonCode = a.integer("extendReasonCode");
           request.requestIdentifier = a.string("requestIdentifier");
           try {
             const auto result = s.extendRenewalDate(request);
             return object{{"originalTransactionId", result.originalTransactionID},
                           {"webOrderLineItemId", result.webOrderLineItemID},
                           {"success", result.success},
                           {"effectiveDate", platform::formatRFC3339(result.effectiveDate)}};
           } catch (const RenewalExtensionRefused& refused) {
             throw ControlError(std::string(extensionRefusalName(refused.reason())) + ": " +
                                refused.what());
           }
         }});
    byIdentifier("consentToPriceIncrease", "the customer agrees to the price increase",
                 &LocalStore::consentToPriceIncrease);
    byIdentifier("declinePriceIncrease",
                 "the customer refuses it: the subscription expires at the end of its period",
                 &LocalStore::declinePriceIncrease);
    add({{"refundTransaction", "identifier, [reason: \"other\" | \"developerIssue\"]",
          "revokes a transaction; the change arrives through the update stream",
          R"({"id":1,"store":"refundTransaction","identifier":2})"},
         [](LocalStore& s, const Arguments& a) {
           std::int64_t reason = 0;  // other
           if (a.has("reason")) {
             const std::string name = a.string("reason");
             if (name == "developerIssue") {
               reason = 1;
             } else if (name != "other") {
               throw ControlError(R"(argument "reason" must be "other" or "developerIssue")");
             }
           }
           s.refundTransaction(a.identifier("identifier"), reason);
           return object{};
         }});
    add({{"requestRefund",
          "identifier, reason: \"UNINTENDED_PURCHASE\" | \"FULFILLMENT_ISSUE\" | "
          "\"UNSATISFIED_WITH_PURCHASE\" | \"LEGAL\" | \"OTHER\"",
          "the customer asks for a refund in the app: a consumption request to the developer's "
          "server, and a subscription's renewal turned off",
          R"({"id":1,"store":"requestRefund","identifier":2,"reason":"UNINTENDED_PURCHASE"})"},
         [](LocalStore& s, const Arguments& a) {
           s.requestRefund(a.identifier("identifier"), a.string("reason"));
           return object{};
         }});
    byIdentifier("declineRefund", "Apple declines a refund the customer asked for",
                 &LocalStore::declineRefund);
    byIdentifier("reverseRefund",
                 "a granted refund is reversed: the transaction is reinstated through the update "
                 "stream",
                 &LocalStore::reverseRefund);
    add({{"notifications", "",
          "the Server Notifications the store made (with --notifications-url), oldest first: "
          "type, subtype, dates and every send attempt",
          R"({"id":1,"store":"notifications"})"},
         [](LocalStore& s, const Arguments&) {
           NotificationQuery query;
           query.start = platform::dateFromMillisecondsSince1970(0);
           query.end = platform::dateFromMillisecondsSince1970(253402300799999);
           query.limit = 100000;
           boost::json::array listed;
           for (const auto& made : s.notificationHistory(query)) {
             boost::json::array attempts;
             for (const auto& attempt : made.attempts) {
               attempts.push_back({{"date", platform::formatRFC3339(attempt.date)},
                                   {"result", attempt.result}});
             }
             object entry{{"notificationUUID", made.uuid},
                          {"notificationType", made.type},
                          {"subtype", made.subtype},
                          {"created", platform::formatRFC3339(made.created)},
                          {"attempts", std::move(attempts)},
                          {"payload", jwsPayload(made.signedPayload)}};
             if (made.nextAttempt) entry["nextAttempt"] = platform::formatRFC3339(*made.nextAttempt);
             listed.push_back(std::move(entry));
           }
           return object{{"notifications", std::move(listed)}};
         }});
    add({{"expireSubscription", "productID", "ends the current period of a subscription now",
          R"({"id":1,"store":"expireSubscription","productID":"pro.monthly"})"},
         [](LocalStore& s, const Arguments& a) {
           s.expireSubscription(a.string("productID"));
           return object{};
         }});
    add({{"forceRenewalOfSubscription", "productID", "renews a subscription now",
          R"({"id":1,"store":"forceRenewalOfSubscription","productID":"pro.monthly"})"},
         [](LocalStore& s, const Arguments& a) {
           s.forceRenewalOfSubscription(a.string("productID"));
           return object{};
         }});
    add({{"advanceTime", "seconds", "moves the store clock ahead; due renewals happen at once",
          R"({"id":1,"store":"advanceTime","seconds":2678400})"},
         [](LocalStore& s, const Arguments& a) {
           s.advanceTime(a.number("seconds"));
           return object{{"now", platform::formatRFC3339(s.now())}};
         }});
    add({{"rootCertificate", "", "the root certificate the store signs under (PEM), to pin on a server",
          R"({"id":1,"store":"rootCertificate"})"},
         [](LocalStore& s, const Arguments&) {
           return object{{"pem", s.signingAuthority().rootCertificatePEM()}};
         }});
    add({{"subscriptionStatus", "groupID",
          "where the group's subscription stands (1 subscribed, 2 expired, 3 billing retry, 4 "
          "grace period, 5 revoked), its latest transaction and its renewal info, signed and "
          "decoded",
          R"({"id":1,"store":"subscriptionStatus","groupID":"21500001"})"},
         [](LocalStore& s, const Arguments& a) {
           boost::json::array statuses;
           for (const auto& held : s.subscriptionStatuses(a.string("groupID"))) {
             statuses.push_back({{"status", static_cast<int>(held.status)},
                                 {"transactionId", held.transaction.id},
                                 {"renewalInfo", jwsPayload(held.signedRenewalInfo)},
                                 {"signedRenewalInfo", held.signedRenewalInfo}});
           }
           return object{{"statuses", std::move(statuses)}};
         }});
    add({{"server", "", "the URL of the App Store Server API (the driver started with --server)",
          R"({"id":1,"store":"server"})"},
         [](LocalStore& s, const Arguments&) {
           if (s.serverURL().empty()) throw ControlError("the store is not served over HTTP (--server)");
           return object{{"url", s.serverURL()}};
         }});
    add({{"now", "", "the store clock", R"({"id":1,"store":"now"})"},
         [](LocalStore& s, const Arguments&) {
           return object{{"now", platform::formatRFC3339(s.now())}};
         }});
    add({{"setSimulatedError",
          "api (loadProducts, purchase, verification, appStoreSync, ...), [error: a StoreKitError, "
          "PurchaseError or VerificationError case name; null clears]",
          "makes a store call fail",
          R"({"id":1,"store":"setSimulatedError","api":"purchase","error":"networkError"})"},
         [](LocalStore& s, const Arguments& a) {
           const auto api = storeKitAPINamed(a.string("api"));
           if (!api) throw ControlError("unknown api \"" + a.string("api") + "\"");
           std::optional<StoreFailure> error;
           if (a.has("error")) error = simulatedError(a.string("error"));
           s.setSimulatedError(*api, error);
           return object{};
         }});
    add({{"setVerificationFailure", "identifier, [error: a VerificationError case name]",
          "makes one transaction come out unverified",
          R"({"id":1,"store":"setVerificationFailure","identifier":2,"error":"revokedCertificate"})"},
         [](LocalStore& s, const Arguments& a) {
           std::optional<StoreFailure> error;
           if (a.has("error")) {
             error = StoreFailure::named(a.string("error"));
             if (!error || error->family != StoreFailure::Family::verification) {
               throw ControlError("unknown verification error \"" + a.string("error") + "\"");
             }
           }
           s.setVerificationFailure(a.identifier("identifier"), error);
           return object{};
         }});
    add({{"setNextPurchaseResult", "[result: \"userCancelled\" | \"unrecognized\"; null clears]",
          "what the next purchase answers instead of going through",
          R"({"id":1,"store":"setNextPurchaseResult","result":"userCancelled"})"},
         [](LocalStore& s, const Arguments& a) {
           std::optional<LocalStore::NextPurchaseResult> result;
           if (a.has("result")) {
             const std::string name = a.string("result");
             if (name == "userCancelled") {
               result = LocalStore::NextPurchaseResult::userCancelled;
             } else if (name == "unrecognized") {
               result = LocalStore::NextPurchaseResult::unrecognized;
             } else {
               throw ControlError(R"(argument "result" must be "userCancelled" or "unrecognized")");
             }
           }
           s.setNextPurchaseResult(result);
           return object{};
         }});
    add({{"loadConfiguration", "path", "replaces products and settings from a .storekit file",
          R"({"id":1,"store":"loadConfiguration","path":"examples/SampleStore.storekit"})"},
         [](LocalStore& s, const Arguments& a) {
           s.loadConfiguration(StoreConfiguration::load(a.string("path")));
           return object{};
         }});
    return t;
  }();
  return *table;
}

}  // namespace

boost::json::object runStoreControl(LocalStore& store, std::string_view name,
                                    const boost::json::object& arguments) {
  const auto& table = controls();
  const auto found = table.find(name);
  if (found == table.end()) throw ControlError("unknown store control \"" + std::string(name) + "\"");
  return found->second.run(store, Arguments(arguments));
}

const std::vector<ControlHelp>& storeControlHelp() {
  static const auto* help = [] {
    auto* list = new std::vector<ControlHelp>();
    for (const auto& [name, control] : controls()) list->push_back(control.help);
    return list;
  }();
  return *help;
}

}  // namespace appstore
