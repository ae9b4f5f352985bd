#include "records/service_records.h"

#include "record_samples.h"
#include "support/json_coding_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

namespace VornTeskPaymentsAddonApple {
namespace {

using samples::kMinimalTransactionJSON;
using samples::minimalTransaction;
using testing::StartsWith;
using testsupport::decoded;
using testsupport::decodingError;
using testsupport::encoded;

TEST(ServiceRecordsTest, RequestsDecodeAsWrittenAndOptionsStayAbsentWhenNotGiven) {
  EXPECT_TRUE(decoded<GetProductsRequest>(R"({"productIds":[]})").productIds.empty());
  EXPECT_FALSE(decoded<PurchaseRequest>(R"({"productId":"p","options":null})").options);
  const auto empty = decoded<PurchaseRequest>(R"({"productId":"p","options":{}})").options;
  ASSERT_TRUE(empty.has_value());
  EXPECT_FALSE(empty->quantity || empty->appAccountToken);
  const auto full = decoded<PurchaseRequest>(
      R"({"productId":"p","options":{"appAccountToken":"tok","quantity":2}})");
  EXPECT_EQ(full.options->quantity, 2);
  EXPECT_EQ(full.options->appAccountToken, "tok");
  EXPECT_EQ(encoded(PurchaseRequest{"p", PurchaseOptions{std::nullopt, 2}}),
            R"({"productId":"p","options":{"quantity":2}})");

  const std::pair<std::string, const char*> errors[] = {
      {decodingError<GetProductsRequest>("{}"), R"(keyNotFound: "productIds")"},
      {decodingError<GetProductsRequest>(R"({"productIds":["a",1]})"),
       "typeMismatch at productIds[1]: expected a string"},
      {decodingError<PurchaseRequest>(R"({"options":{}})"), R"(keyNotFound: "productId")"},
      {decodingError<PurchaseRequest>(R"({"productId":"p","options":{"quantity":"2"}})"),
       "typeMismatch at options.quantity: expected a 32-bit integer"},
      {decodingError<FinishTransactionRequest>(R"({"transactionId":-1})"),
       "typeMismatch at transactionId:"},
      {decodingError<FinishTransactionRequest>("[]"), "typeMismatch: expected an object"},
  };
  for (const auto& [error, description] : errors) EXPECT_THAT(error, StartsWith(description));
}

template <class Record>
void expectFieldless() {
  SCOPED_TRACE(typeid(Record).name());
  for (const char* text : {"{}", R"({"anything":true})", "[]", "3", "null", R"("")"}) {
    EXPECT_EQ(decodingError<Record>(text), "") << text;
  }
  for (const char* text : {"", "{", "{} {}"}) {
    EXPECT_THAT(decodingError<Record>(text), StartsWith("dataCorrupted")) << text;
  }
  EXPECT_EQ(encoded(Record{}), "{}");
}

TEST(ServiceRecordsTest, FieldlessRecordsReadAnyJSONAndWriteAnEmptyObject) {
  expectFieldless<StartTransactionObserverRequest>();
  expectFieldless<StartTransactionObserverResponse>();
  expectFieldless<StopTransactionObserverRequest>();
  expectFieldless<StopTransactionObserverResponse>();
  expectFieldless<GetCurrentEntitlementsRequest>();
  expectFieldless<GetAllTransactionsRequest>();
  expectFieldless<GetUnfinishedTransactionsRequest>();
  expectFieldless<FinishTransactionResponse>();
  expectFieldless<SyncRequest>();
  expectFieldless<SyncResponse>();
  expectFieldless<GetStorefrontRequest>();
}

template <class Response>
void expectTransactionList() {
  SCOPED_TRACE(typeid(Response).name());
  const std::string list = "{\"transactions\":[" + std::string(kMinimalTransactionJSON) + "]}";
  EXPECT_EQ(encoded(Response{{{}}}), R"({"transactions":[]})");
  EXPECT_EQ(encoded(Response{{{minimalTransaction()}}}), list);
  EXPECT_EQ(encoded(decoded<Response>(list)), list);
  EXPECT_EQ(decodingError<Response>("{}"), R"(keyNotFound: "transactions")");
  // A string that is not UTF-8 fails the whole answer, saying where it was.
  AppleTransaction bad = minimalTransaction();
  bad.productId = "coins\xC3";
  EXPECT_THAT(testsupport::encodingError(Response{{{minimalTransaction(), bad}}}),
              StartsWith("invalidValue at transactions[1].productId:"));
}

TEST(ServiceRecordsTest, ResponsesWriteExactBytes) {
  expectTransactionList<GetCurrentEntitlementsResponse>();
  expectTransactionList<GetAllTransactionsResponse>();
  expectTransactionList<GetUnfinishedTransactionsResponse>();
  EXPECT_EQ(encoded(PurchaseResponse{minimalTransaction()}),
            "{\"transaction\":" + std::string(kMinimalTransactionJSON) + "}");
  EXPECT_EQ(encoded(GetProductsResponse{}), R"({"products":[]})");
  EXPECT_EQ(encoded(GetStorefrontResponse{"FRA", "143442"}),
            R"({"countryCode":"FRA","identifier":"143442"})");
  EXPECT_EQ(decodingError<GetStorefrontResponse>(R"({"countryCode":"US"})"),
            R"(keyNotFound: "identifier")");
}

}  // namespace
}  // namespace VornTeskPaymentsAddonApple
