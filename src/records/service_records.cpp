#include "records/service_records.h"

namespace VornTeskPaymentsAddonApple {

void GetProductsRequest::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("productIds", productIds);
}

GetProductsRequest GetProductsRequest::decode(const vorn::tesk::Decoder& decoder) {
  return {decoder.keyedContainer().decode<std::vector<std::string>>("productIds")};
}

void GetProductsResponse::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("products", products);
}

GetProductsResponse GetProductsResponse::decode(const vorn::tesk::Decoder& decoder) {
  return {decoder.keyedContainer().decode<std::vector<AppleProduct>>("products")};
}

void PurchaseOptions::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encodeIfPresent("appAccountToken", appAccountToken);
  c.encodeIfPresent("quantity", quantity);
}

PurchaseOptions PurchaseOptions::decode(const vorn::tesk::Decoder& decoder) {
  const auto c = decoder.keyedContainer();
  PurchaseOptions options;
  options.appAccountToken = c.decodeIfPresent<std::string>("appAccountToken");
  options.quantity = c.decodeIfPresent<std::int32_t>("quantity");
  return options;
}

void PurchaseRequest::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("productId", productId);
  c.encodeIfPresent("options", options);
}

PurchaseRequest PurchaseRequest::decode(const vorn::tesk::Decoder& decoder) {
  const auto c = decoder.keyedContainer();
  PurchaseRequest request;
  request.productId = c.decode<std::string>("productId");
  request.options = c.decodeIfPresent<PurchaseOptions>("options");
  return request;
}

void PurchaseResponse::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("transaction", transaction);
}

PurchaseResponse PurchaseResponse::decode(const vorn::tesk::Decoder& decoder) {
  return {decoder.keyedContainer().decode<AppleTransaction>("transaction")};
}

void FinishTransactionRequest::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("transactionId", transactionId);
}

FinishTransactionRequest FinishTransactionRequest::decode(const vorn::tesk::Decoder& decoder) {
  return {decoder.keyedContainer().decode<std::uint64_t>("transactionId")};
}

void GetStorefrontResponse::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("countryCode", countryCode);
  c.encode("identifier", identifier);
}

GetStorefrontResponse GetStorefrontResponse::decode(const vorn::tesk::Decoder& decoder) {
  const auto c = decoder.keyedContainer();
  GetStorefrontResponse response;
  response.countryCode = c.decode<std::string>("countryCode");
  response.identifier = c.decode<std::string>("identifier");
  return response;
}

}  // namespace VornTeskPaymentsAddonApple
