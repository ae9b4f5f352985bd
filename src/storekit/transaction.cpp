#include "storekit/transaction.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "platform/base64.h"
#include "platform/task.h"
#include "storekit/availability.h"
#include "storekit/device.h"
#include "storekit/payload_fields.h"

namespace storekit {
namespace json = boost::json;

struct Transaction::Data {
  json::object payload;
  std::string jsonText;

  std::uint64_t id = 0;
  std::uint64_t originalID = 0;
  std::string productID;
  std::string bundleID;
  platform::Date purchaseDate;
  platform::Date originalPurchaseDate;
  platform::Date signedDate;
  std::int64_t quantity = 1;
  std::optional<platform::Date> expirationDate;
  std::optional<platform::Date> revocationDate;
  std::optional<platform::UUID> appAccountToken;
  std::string deviceVerification;
  platform::UUID deviceVerificationNonce{platform::UUID::Bytes{}};
};

using namespace payload;


std::optional<VerificationResult<Transaction>> TransactionSequence::next() {
  if (!source_) return std::nullopt;
  return source_->next(platform::Task::currentStopToken());
}

Transaction::OfferType Transaction::OfferType::winBack() {
  requireSystem(18, 0, "Transaction.OfferType.winBack");
  return {4};
}

const std::optional<SubscriptionPeriod>& Transaction::Offer::period() const {
  requireSystem(18, 4, "Transaction.Offer.period");
  return period_;
}

Transaction Transaction::fromPayload(json::object payload) {
  auto data = std::make_shared<Data>();
  data->id = requiredIdentifier(payload, "transactionId");
  data->originalID = requiredIdentifier(payload, "originalTransactionId");
  data->productID = requiredString(payload, "productId");
  data->bundleID = requiredString(payload, "bundleId");
  data->purchaseDate = requiredDate(payload, "purchaseDate");
  data->originalPurchaseDate = requiredDate(payload, "originalPurchaseDate");
  data->signedDate = requiredDate(payload, "signedDate");
  data->quantity = optionalInteger(payload, "quantity").value_or(1);
  data->expirationDate = optionalDate(payload, "expiresDate");
  data->revocationDate = optionalDate(payload, "revocationDate");
  data->appAccountToken = optionalUUID(payload, "appAccountToken");
  if (auto nonce = optionalUUID(payload, "deviceVerificationNonce")) {
    data->deviceVerificationNonce = *nonce;
  }
  if (auto verification = optionalString(payload, "deviceVerification")) {
    auto bytes = platform::base64Decode(*verification);
    if (!bytes) badEncoding();
    data->deviceVerification = std::move(*bytes);
  }
  requiredString(payload, "type");
  requiredString(payload, "environment");
  // Kinds of the optional members read later, so that a reader never meets a surprise.
  for (const char* key : {"webOrderLineItemId", "subscriptionGroupIdentifier", "inAppOwnershipType",
                          "transactionReason", "storefront", "storefrontId", "offerIdentifier",
                          "offerDiscountType", "offerPeriod", "currency", "appTransactionId"}) {
    optionalString(payload, key);
  }
  for (const char* key : {"offerType", "revocationReason", "price"}) optionalInteger(payload, key);
  if (const auto* upgraded = find(payload, "isUpgraded"); upgraded && !upgraded->is_bool()) {
    badEncoding();
  }
  data->jsonText = json::serialize(payload);
  data->payload = std::move(payload);
  return Transaction(std::move(data));
}

Transaction Transaction::fromJSON(std::string_view text) {
  json::error_code ec;
  auto value = json::parse(text, ec);
  if (ec || !value.is_object()) badEncoding();
  return fromPayload(std::move(value.as_object()));
}

std::uint64_t Transaction::id() const { return data_->id; }
std::uint64_t Transaction::originalID() const { return data_->originalID; }
std::optional<std::string> Transaction::webOrderLineItemID() const {
  return backingString("webOrderLineItemId");
}
std::string Transaction::productID() const { return data_->productID; }
std::optional<std::string> Transaction::subscriptionGroupID() const {
  return backingString("subscriptionGroupIdentifier");
}
std::string Transaction::appBundleID() const { return data_->bundleID; }
platform::Date Transaction::purchaseDate() const { return data_->purchaseDate; }
platform::Date Transaction::originalPurchaseDate() const { return data_->originalPurchaseDate; }
std::optional<platform::Date> Transaction::expirationDate() const { return data_->expirationDate; }
std::int64_t Transaction::purchasedQuantity() const { return data_->quantity; }

bool Transaction::isUpgraded() const {
  const auto* value = find(data_->payload, "isUpgraded");
  return value && value->as_bool();
}

Transaction::OwnershipType Transaction::ownershipType() const {
  return {backingString("inAppOwnershipType").value_or("PURCHASED")};
}

std::optional<platform::Date> Transaction::revocationDate() const { return data_->revocationDate; }

std::optional<Transaction::RevocationReason> Transaction::revocationReason() const {
  const auto value = optionalInteger(data_->payload, "revocationReason");
  if (!value) return std::nullopt;
  return RevocationReason{*value};
}

ProductType Transaction::productType() const { return {*backingString("type")}; }

std::optional<platform::UUID> Transaction::appAccountToken() const {
  return data_->appAccountToken;
}

Environment Transaction::environment() const { return {*backingString("environment")}; }

Transaction::Reason Transaction::reason() const {
  requireSystem(17, 0, "Transaction.reason");
  if (auto raw = backingString("transactionReason")) return {std::move(*raw)};
  return data_->id == data_->originalID ? Reason::purchase() : Reason::renewal();
}

Storefront Transaction::storefront() const {
  requireSystem(17, 0, "Transaction.storefront");
  return {backingString("storefront").value_or(""), backingString("storefrontId").value_or(""),
          backingString("currency").value_or("")};
}

platform::Date Transaction::signedDate() const { return data_->signedDate; }
std::string Transaction::deviceVerification() const { return data_->deviceVerification; }
platform::UUID Transaction::deviceVerificationNonce() const {
  return data_->deviceVerificationNonce;
}

std::optional<Transaction::Offer> Transaction::offer() const {
  requireSystem(17, 2, "Transaction.offer");
  const auto type = optionalInteger(data_->payload, "offerType");
  if (!type) return std::nullopt;
  std::optional<OfferPaymentMode> mode;
  if (auto raw = backingString("offerDiscountType")) mode = OfferPaymentMode{std::move(*raw)};
  std::optional<SubscriptionPeriod> period;
  if (auto raw = backingString("offerPeriod")) period = SubscriptionPeriod::parse(*raw);
  return Offer(backingString("offerIdentifier"), OfferType{*type}, std::move(mode), period);
}

std::optional<Transaction::OfferType> Transaction::offerType() const {
  const auto type = optionalInteger(data_->payload, "offerType");
  if (!type) return std::nullopt;
  return OfferType{*type};
}

std::optional<std::string> Transaction::offerID() const { return backingString("offerIdentifier"); }

std::optional<std::string> Transaction::offerPaymentModeStringRepresentation() const {
  return backingString("offerDiscountType");
}

std::optional<std::string> Transaction::offerPeriodStringRepresentation() const {
  requireSystem(18, 4, "Transaction.offerPeriodStringRepresentation");
  return backingString("offerPeriod");
}

std::optional<platform::Decimal> Transaction::price() const {
  requireSystem(17, 2, "Transaction.price");
  const auto thousandths = optionalInteger(data_->payload, "price");
  if (!thousandths) return std::nullopt;
  return platform::Decimal::fromInteger(*thousandths).scaledByPowerOfTen(-3);
}

std::optional<std::string> Transaction::currency() const {
  requireSystem(17, 2, "Transaction.currency");
  return backingString("currency");
}

std::string Transaction::appTransactionID() const {
  requireSystem(18, 4, "Transaction.appTransactionID");
  return backingString("appTransactionId").value_or("");
}

const std::string& Transaction::jsonRepresentation() const { return data_->jsonText; }

std::optional<std::string> Transaction::backingString(std::string_view key) const {
  const auto* value = find(data_->payload, key);
  if (!value || !value->is_string()) return std::nullopt;
  return std::string(value->get_string());
}

std::optional<platform::Decimal> Transaction::backingNumber(std::string_view key) const {
  const auto* value = find(data_->payload, key);
  if (!value) return std::nullopt;
  if (value->is_int64()) return platform::Decimal::fromInteger(value->get_int64());
  if (value->is_uint64() || value->is_double()) return platform::Decimal::parse(json::serialize(*value));
  return std::nullopt;
}

const json::object& Transaction::payload() const { return data_->payload; }

void Transaction::finish() const {
  // A finish the store cannot save is retried by the app at its next launch, as on a device
  // that lost its connection: the transaction stays unfinished.
  try {
    Device::current()->store()->finish(data_->id);
  } catch (const std::exception&) {
  }
}

TransactionSequence Transaction::updates() { return Device::current()->updates(); }
TransactionSequence Transaction::all() { return Device::current()->all(); }
TransactionSequence Transaction::currentEntitlements() {
  return Device::current()->currentEntitlements();
}
TransactionSequence Transaction::unfinished() { return Device::current()->unfinished(); }

}  // namespace storekit
