// Every wire record decoded from any text. Decoding either succeeds or throws DecodingError;
// whatever decodes writes out again, and what was written reads back into a record that
// writes the very same bytes (the first write may normalise dates, decimals and unknown
// enumeration values; after that the form is fixed).
//
// Input: one JSON text (a record, a request payload, a response).
#include "fuzz_check.h"
#include "host/json_coding.h"
#include "platform/json.h"
#include "records/service_records.h"

namespace {

using namespace VornTeskPaymentsAddonApple;

template <class Record>
void roundTrip(const boost::json::value& document) {
  Record record;
  try {
    record = vorn::tesk::Decoder(document, nullptr).decode<Record>();
  } catch (const vorn::tesk::DecodingError&) {
    return;
  }
  const auto encoder = vorn::tesk::TeskJSONCoding::makeEncoder();
  std::string first;
  try {
    first = encoder.encode(record);
  } catch (const vorn::tesk::EncodingError& error) {
    FUZZ_REQUIRE(false, "a decoded record cannot be written: " + error.description());
  }
  Record again;
  try {
    again = vorn::tesk::TeskJSONCoding::makeDecoder().decode<Record>(first);
  } catch (const vorn::tesk::DecodingError& error) {
    FUZZ_REQUIRE(false, "written " + first + " does not read back: " + error.description());
  }
  const auto second = encoder.encode(again);
  FUZZ_REQUIRE(second == first, first + "\n  became\n  " + second);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  // The decoder's own entry: refuses what does not parse with DecodingError and nothing else.
  try {
    (void)vorn::tesk::TeskJSONCoding::makeDecoder().decode<AppleTransaction>(text);
  } catch (const vorn::tesk::DecodingError&) {
  }
  const auto document = platform::parseJSON(text);
  if (!document) return 0;
  roundTrip<AppleTransaction>(*document);
  roundTrip<AppleProduct>(*document);
  roundTrip<SubscriptionInfo>(*document);
  roundTrip<Offer>(*document);
  roundTrip<Period>(*document);
  roundTrip<GetProductsRequest>(*document);
  roundTrip<GetProductsResponse>(*document);
  roundTrip<PurchaseOptions>(*document);
  roundTrip<PurchaseRequest>(*document);
  roundTrip<PurchaseResponse>(*document);
  roundTrip<GetCurrentEntitlementsResponse>(*document);
  roundTrip<GetAllTransactionsResponse>(*document);
  roundTrip<GetUnfinishedTransactionsResponse>(*document);
  roundTrip<FinishTransactionRequest>(*document);
  roundTrip<GetStorefrontResponse>(*document);
  roundTrip<SyncRequest>(*document);
  return 0;
}
