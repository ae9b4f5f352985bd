// The envelope texts built from objects: unknown outcomes, error envelopes and their
// escaping, and the fixed stand-ins when serialised text would not be valid.
#include "bridge/envelope.h"
#include "platform/json.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

namespace {

using namespace VornTeskPaymentsAddonApple;

TEST(Envelope, UnknownOutcomeCarriesAnyJSONDocumentAsData) {
  struct Case {
    std::string code;
    std::string rawJson;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"later", "null", R"({"outcome":{"code":"later","data":null}})"},
      {"later", "true", R"({"outcome":{"code":"later","data":true}})"},
      {"later", R"("quoted")", R"({"outcome":{"code":"later","data":"quoted"}})"},
      {"later", "-12.5", R"({"outcome":{"code":"later","data":-1.25E1}})"},
      {"later", "42", R"({"outcome":{"code":"later","data":42}})"},
      {"", R"( {"a": [1, {"b": null}]} )", R"({"outcome":{"code":"","data":{"a":[1,{"b":null}]}}})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rawJson);
    EXPECT_EQ(unknownOutcomeEnvelope(c.code, c.rawJson), c.expected);
  }
  const std::string invalid =
      R"({"error":{"code":"INTERNAL","message":"Unknown outcome rawJson was not valid JSON"}})";
  for (const std::string raw : {"", "{", "{\"a\":1", "[1,]", "1 2", "nul", "\"\xC3\x28\""}) {
    SCOPED_TRACE(raw);
    EXPECT_EQ(unknownOutcomeEnvelope("code", raw), invalid);
  }
}

TEST(Envelope, UnknownOutcomeDataIsNoDeeperThanAnEnvelopeTheProcessCanReadBack) {
  auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  const std::size_t deepest = platform::kMaxJSONDepth - 2;
  const auto envelope = unknownOutcomeEnvelope("deep", nested(deepest));
  EXPECT_EQ(envelope, R"({"outcome":{"code":"deep","data":)" + nested(deepest) + "}}");
  EXPECT_TRUE(platform::parseJSON(envelope).has_value());
  for (const std::size_t depth : {deepest + 1, deepest + 2, deepest + 3}) {
    EXPECT_EQ(unknownOutcomeEnvelope("deep", nested(depth)),
              R"({"error":{"code":"INTERNAL","message":"Unknown outcome rawJson was not valid JSON"}})")
        << depth;
  }
}

TEST(Envelope, UnknownOutcomeDataWithANumberJSONCannotCarryIsUnserialisable) {
  for (const std::string raw : {"1e999", "-1e400", R"([0,{"a":[2e308]}])"}) {
    EXPECT_EQ(unknownOutcomeEnvelope("big", raw), kUnserialisableEnvelope) << raw;
  }
  EXPECT_EQ(unknownOutcomeEnvelope("big", "[1e308]"),
            R"({"outcome":{"code":"big","data":[1E308]}})");
}

TEST(Envelope, ErrorEnvelopesEscapeWhatTheyAreGivenAndNeverEmitInvalidText) {
  const std::string text = errorEnvelope("IN\"TERNAL", "line\nbreak \\ tab\t \x01 \xE2\x82\xAC");
  const auto parsed = boost::json::parse(text).as_object();
  EXPECT_EQ(parsed.at("error").at("code").as_string(), "IN\"TERNAL");
  EXPECT_EQ(parsed.at("error").at("message").as_string(), "line\nbreak \\ tab\t \x01 \xE2\x82\xAC");
  EXPECT_EQ(text.find('\n'), std::string::npos);

  EXPECT_EQ(errorEnvelope("INTERNAL", "bad \xFF byte"),
            R"({"error":{"code":"INTERNAL","message":"<non-utf8>"}})");
  EXPECT_EQ(kNonUTF8Envelope.size(), 52U);
  EXPECT_EQ(kUnserialisableEnvelope.size(), 58U);
  EXPECT_EQ(kPendingEnvelope.size(), 40U);
  EXPECT_EQ(kUserCanceledEnvelope.size(), 46U);
  EXPECT_EQ(kAlreadyStartedEnvelope.size(), 48U);
  EXPECT_EQ(kTransactionNotFoundEnvelope.size(), 54U);
}

TEST(Envelope, FailureCarriesTheErrorObjectMemberForMember) {
  vorn::tesk::VornError minimal{vorn::tesk::VornErrorCode::invalidArgument,
                                "productIds must not be empty."};
  EXPECT_EQ(failureEnvelope(minimal),
            R"({"error":{"code":"INVALID_ARGUMENT","message":"productIds must not be empty."}})");

  vorn::tesk::VornError full = minimal;
  full.externalCode = "X";
  full.details = std::map<std::string, std::string>{{"b", "2"}, {"a", "1"}};
  full.instance = "/i";
  const auto parsed = boost::json::parse(failureEnvelope(full)).as_object();
  EXPECT_EQ(parsed.at("error").as_object(), full.toJSONObject());
  EXPECT_FALSE(parsed.at("error").as_object().contains("traceId"));
  EXPECT_FALSE(parsed.at("error").as_object().contains("type"));
}

}  // namespace
