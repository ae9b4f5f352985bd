// The outcome envelope of an unknown adapter result, with any code and any raw JSON. The
// answer is always one JSON text the process's own reader accepts: the outcome carrying the
// code and exactly the parsed data when both can travel, else the "INTERNAL" errors (data
// that is not JSON or too deep, a code that is not UTF-8, data that cannot be written).
//
// Input: the code, a line break, the raw JSON.
#include "bridge/envelope.h"
#include "fuzz_check.h"
#include "platform/json.h"
#include "platform/utf8.h"

#include <boost/json/serialize.hpp>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace VornTeskPaymentsAddonApple;
  const auto [code, rawJson] = fuzzcheck::splitFirstLine(data, size);
  // Through the result path the plug-in takes, which must agree with the builder itself.
  const std::string envelope = encodeResult(AppleStoreKitServiceSyncResult(Unknown{code, rawJson}));
  FUZZ_REQUIRE(envelope == unknownOutcomeEnvelope(code, rawJson), envelope);

  const auto parsed = platform::parseJSON(envelope);
  FUZZ_REQUIRE(parsed.has_value(), envelope);
  // The data two levels down must still be within the reader's depth limit.
  const auto parsedData = rawJson.empty()
                              ? std::nullopt
                              : platform::parseJSON(rawJson, nullptr, platform::kMaxJSONDepth - 2);
  if (!parsedData) {
    FUZZ_REQUIRE(
        envelope == errorEnvelope("INTERNAL", "Unknown outcome rawJson was not valid JSON"),
        envelope);
  } else if (!platform::parseJSON(boost::json::serialize(*parsedData))) {
    // Data the serialiser cannot write as JSON (a number that overflowed when read); this
    // failure comes first, before the text is checked for UTF-8.
    FUZZ_REQUIRE(envelope == kUnserialisableEnvelope, envelope);
  } else if (!platform::isValidUTF8(code)) {
    FUZZ_REQUIRE(envelope == kNonUTF8Envelope, envelope);
  } else {
    const auto& outcome = parsed->at("outcome");
    FUZZ_REQUIRE(outcome.at("code").is_string() && outcome.at("code").get_string() == code,
                 envelope);
    // As the platform serialiser writes the parsed data (numbers in their shortest form, which
    // may read back closer to the text than the parser's first, faster reading did).
    const auto written = platform::parseJSON(boost::json::serialize(*parsedData));
    FUZZ_REQUIRE(written && outcome.at("data") == *written, envelope + "\n  from\n  " + rawJson);
    FUZZ_REQUIRE(parsed->get_object().size() == 1 && outcome.get_object().size() == 2, envelope);
  }
  return 0;
}
