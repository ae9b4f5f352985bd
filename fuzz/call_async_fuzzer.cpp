// The plug-in's entry points with any method name and any payload. Every call is answered
// exactly once with one JSON envelope; a known method whose payload does not decode is
// answered "INTERNAL" with the decoder's description and never reaches the adapter; an
// unknown method is "UNIMPLEMENTED". The adapter answers at once and echoes what it was sent
// into its results, so arbitrary text also reaches the encoder and every envelope shape.
//
// Input: the method name, a line break, the payload.
#include "bridge/apple_store_kit_service_plugin.h"
#include "bridge/envelope.h"
#include "fuzz_check.h"
#include "platform/json.h"
#include "platform/utf8.h"
#include "support/scripted_adapter.h"

#include <boost/json/serialize.hpp>

#include <atomic>
#include <memory>
#include <semaphore>

namespace {

using namespace VornTeskPaymentsAddonApple;
using vorn::tesk::VornError;
using vorn::tesk::VornErrorCode;

// "unknown:<raw json>" and "error:<message>" pick those cases; anything else succeeds.
template <class Result>
bool scriptedOutcome(const std::string& word, Result& result) {
  if (word.rfind("unknown:", 0) == 0) {
    result = Unknown{"fuzz", word.substr(8)};
    return true;
  }
  if (word.rfind("error:", 0) == 0) {
    result = VornError{VornErrorCode::internalError, word.substr(6), word};
    return true;
  }
  return false;
}

std::shared_ptr<testsupport::ScriptedAdapter> makeEchoAdapter() {
  auto adapter = std::make_shared<testsupport::ScriptedAdapter>();
  adapter->onGetProducts = [](const GetProductsRequest& request) {
    AppleStoreKitServiceGetProductsResult result;
    if (!request.productIds.empty() && scriptedOutcome(request.productIds.front(), result)) {
      return result;
    }
    GetProductsResponse response;
    for (const auto& id : request.productIds) {
      AppleProduct product;
      product.id = id;
      product.displayName = id;
      product.price = platform::Decimal::parse(id).value_or(platform::Decimal());
      response.products.push_back(std::move(product));
    }
    return AppleStoreKitServiceGetProductsResult(std::move(response));
  };
  adapter->onPurchase = [](const PurchaseRequest& request) {
    AppleStoreKitServicePurchaseResult result;
    if (scriptedOutcome(request.productId, result)) return result;
    if (request.productId == "pending") return AppleStoreKitServicePurchaseResult(Pending{});
    if (request.productId == "cancel") return AppleStoreKitServicePurchaseResult(UserCanceled{});
    AppleTransaction transaction;
    transaction.productId = request.productId;
    if (request.options) {
      transaction.appAccountToken = request.options->appAccountToken;
      transaction.quantity = request.options->quantity.value_or(1);
    }
    return AppleStoreKitServicePurchaseResult(PurchaseResponse{std::move(transaction)});
  };
  adapter->onFinish = [](const FinishTransactionRequest& request) {
    if (request.transactionId % 2 == 1) {
      return AppleStoreKitServiceFinishTransactionResult(TransactionNotFound{});
    }
    return AppleStoreKitServiceFinishTransactionResult(FinishTransactionResponse{});
  };
  return adapter;
}

// Whether `payload` decodes as the request of `method`; nothing for an unknown method.
template <class Request>
std::optional<std::string> decodeFailure(const std::string& payload) {
  try {
    (void)vorn::tesk::TeskJSONCoding::makeDecoder().decode<Request>(payload);
    return std::string();
  } catch (const vorn::tesk::DecodingError& error) {
    return error.description();
  }
}

// For a known method: empty when the payload decodes, else the decoder's description.
std::optional<std::optional<std::string>> requestCheck(const std::string& method,
                                                       const std::string& payload) {
  auto wrap = [](std::optional<std::string> failure) {
    return std::optional<std::optional<std::string>>(failure->empty() ? std::nullopt
                                                                      : std::move(failure));
  };
  if (method == "GetProducts") return wrap(decodeFailure<GetProductsRequest>(payload));
  if (method == "Purchase") return wrap(decodeFailure<PurchaseRequest>(payload));
  if (method == "FinishTransaction") return wrap(decodeFailure<FinishTransactionRequest>(payload));
  for (const char* fieldless :
       {"StartTransactionObserver", "StopTransactionObserver", "GetCurrentEntitlements",
        "GetAllTransactions", "GetUnfinishedTransactions", "Sync", "GetStorefront"}) {
    if (method == fieldless) return wrap(decodeFailure<SyncRequest>(payload));
  }
  return std::nullopt;
}

struct Harness {
  std::shared_ptr<testsupport::ScriptedAdapter> adapter = makeEchoAdapter();
  std::shared_ptr<AppleStoreKitServicePlugin> plugin = std::make_shared<AppleStoreKitServicePlugin>(
      adapter, std::make_shared<platform::SerialQueue>("fuzz.plugin"));
  std::atomic<long> answers{0};
  long calls = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static auto* harness = new Harness();
  const auto [method, payload] = fuzzcheck::splitFirstLine(data, size);

  const int operationsBefore = harness->adapter->operationCalls.load();
  auto answered = std::make_shared<std::binary_semaphore>(0);
  auto envelope = std::make_shared<std::string>();
  ++harness->calls;
  harness->plugin->callAsync(method, payload,
                             [harness = harness, answered, envelope](std::string text) {
                               *envelope = std::move(text);
                               ++harness->answers;
                               answered->release();
                             });
  answered->acquire();  // an unanswered call hangs here, and libFuzzer's timeout reports it
  // Answers arrive in call order on one queue, so a second answer to an earlier call would
  // have arrived by now.
  FUZZ_REQUIRE(harness->answers.load() == harness->calls, "a call was answered more than once");

  const auto parsed = platform::parseJSON(*envelope);
  FUZZ_REQUIRE(parsed && parsed->is_object() && parsed->get_object().size() == 1, *envelope);
  const auto& object = parsed->get_object();
  const auto kind = object.begin()->key();
  FUZZ_REQUIRE(kind == "success" || kind == "outcome" || kind == "error", *envelope);

  const auto check = requestCheck(method, payload);
  const int operations = harness->adapter->operationCalls.load() - operationsBefore;
  if (!check) {
    FUZZ_REQUIRE(operations == 0, "an unknown method reached the adapter");
    const std::string expected =
        platform::isValidUTF8(method)
            ? errorEnvelope("UNIMPLEMENTED", "Unknown ASYNC method: " + method)
            : std::string(kNonUTF8Envelope);
    FUZZ_REQUIRE(*envelope == expected, *envelope);
  } else if (*check) {
    FUZZ_REQUIRE(operations == 0, "an undecodable payload reached the adapter");
    FUZZ_REQUIRE(*envelope == errorEnvelope("INTERNAL", **check), *envelope);
    FUZZ_REQUIRE(object.at("error").at("code") == "INTERNAL", *envelope);
  } else {
    FUZZ_REQUIRE(operations == 1, "a decodable payload did not reach the adapter exactly once");
  }

  const auto syncAnswer = harness->plugin->callSync(method, payload);
  FUZZ_REQUIRE(
      syncAnswer == errorEnvelope("INTERNAL", "Plugin AppleStoreKitService has no SYNC methods"),
      syncAnswer);
  return 0;
}
