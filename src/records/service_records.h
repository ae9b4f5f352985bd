// The request and response records of the service's ten methods, and PurchaseOptions.
// Requests are decoded from call payloads; responses are encoded into success answers.
// Records without fields write "{}" and read any JSON document without looking at it.
#pragma once

#include "host/json_coding.h"
#include "records/apple_product.h"
#include "records/apple_transaction.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VornTeskPaymentsAddonApple {

// Shared coding of the field-less records.
template <class Record>
struct FieldlessRecord {
  void encode(vorn::tesk::Encoder& encoder) const { (void)encoder.keyedContainer(); }
  static Record decode(const vorn::tesk::Decoder& /*decoder*/) { return {}; }
};

// Shared coding of the three transaction-list responses.
template <class Record>
struct TransactionListRecord {
  std::vector<AppleTransaction> transactions;

  void encode(vorn::tesk::Encoder& encoder) const {
    auto c = encoder.keyedContainer();
    c.encode("transactions", transactions);
  }
  static Record decode(const vorn::tesk::Decoder& decoder) {
    Record record;
    record.transactions = decoder.keyedContainer().decode<std::vector<AppleTransaction>>("transactions");
    return record;
  }
};

struct GetProductsRequest {
  std::vector<std::string> productIds;
  void encode(vorn::tesk::Encoder& encoder) const;
  static GetProductsRequest decode(const vorn::tesk::Decoder& decoder);
};

struct GetProductsResponse {
  std::vector<AppleProduct> products;
  void encode(vorn::tesk::Encoder& encoder) const;
  static GetProductsResponse decode(const vorn::tesk::Decoder& decoder);
};

struct PurchaseOptions {
  std::optional<std::string> appAccountToken;
  std::optional<std::int32_t> quantity;
  void encode(vorn::tesk::Encoder& encoder) const;
  static PurchaseOptions decode(const vorn::tesk::Decoder& decoder);
};

struct PurchaseRequest {
  std::string productId;
  std::optional<PurchaseOptions> options;
  void encode(vorn::tesk::Encoder& encoder) const;
  static PurchaseRequest decode(const vorn::tesk::Decoder& decoder);
};

struct PurchaseResponse {
  AppleTransaction transaction;
  void encode(vorn::tesk::Encoder& encoder) const;
  static PurchaseResponse decode(const vorn::tesk::Decoder& decoder);
};

struct StartTransactionObserverRequest : FieldlessRecord<StartTransactionObserverRequest> {};
struct StartTransactionObserverResponse : FieldlessRecord<StartTransactionObserverResponse> {};
struct StopTransactionObserverRequest : FieldlessRecord<StopTransactionObserverRequest> {};
struct StopTransactionObserverResponse : FieldlessRecord<StopTransactionObserverResponse> {};
struct GetCurrentEntitlementsRequest : FieldlessRecord<GetCurrentEntitlementsRequest> {};
struct GetCurrentEntitlementsResponse : TransactionListRecord<GetCurrentEntitlementsResponse> {};
struct GetAllTransactionsRequest : FieldlessRecord<GetAllTransactionsRequest> {};
struct GetAllTransactionsResponse : TransactionListRecord<GetAllTransactionsResponse> {};
struct GetUnfinishedTransactionsRequest : FieldlessRecord<GetUnfinishedTransactionsRequest> {};
struct GetUnfinishedTransactionsResponse
    : TransactionListRecord<GetUnfinishedTransactionsResponse> {};

struct FinishTransactionRequest {
  std::uint64_t transactionId = 0;
  void encode(vorn::tesk::Encoder& encoder) const;
  static FinishTransactionRequest decode(const vorn::tesk::Decoder& decoder);
};

struct FinishTransactionResponse : FieldlessRecord<FinishTransactionResponse> {};
struct SyncRequest : FieldlessRecord<SyncRequest> {};
struct SyncResponse : FieldlessRecord<SyncResponse> {};
struct GetStorefrontRequest : FieldlessRecord<GetStorefrontRequest> {};

struct GetStorefrontResponse {
  std::string countryCode;
  std::string identifier;
  void encode(vorn::tesk::Encoder& encoder) const;
  static GetStorefrontResponse decode(const vorn::tesk::Decoder& decoder);
};

}  // namespace VornTeskPaymentsAddonApple
