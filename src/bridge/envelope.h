// The answer envelope: every answer to the host is one JSON text of one of four shapes.
//   success  {"success":<response record>}   (the record's text inserted as encoded)
//   outcome  {"outcome":{"code":…,"data":…}} (unknown outcomes and the fixed outcome texts)
//   error    {"error":<VornError object>}     (failures)
//   error    {"error":{"code":…,"message":…}} (bridge-level failures)
// Pure functions. Only successEnvelope (and so encodeResult) can throw: the encoder's
// EncodingError, which the caller turns into an "INTERNAL" error envelope.
#pragma once

#include "adapter/results.h"
#include "host/json_coding.h"
#include "host/vorn_error.h"

#include <boost/json/object.hpp>

#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace VornTeskPaymentsAddonApple {

inline constexpr std::string_view kPendingEnvelope =
    R"({"outcome":{"code":"pending","data":{}}})";
inline constexpr std::string_view kUserCanceledEnvelope =
    R"({"outcome":{"code":"user_canceled","data":{}}})";
inline constexpr std::string_view kAlreadyStartedEnvelope =
    R"({"outcome":{"code":"already_started","data":{}}})";
inline constexpr std::string_view kTransactionNotFoundEnvelope =
    R"({"outcome":{"code":"transaction_not_found","data":{}}})";
inline constexpr std::string_view kUnserialisableEnvelope =
    R"({"error":{"code":"INTERNAL","message":"<unserialisable>"}})";
inline constexpr std::string_view kNonUTF8Envelope =
    R"({"error":{"code":"INTERNAL","message":"<non-utf8>"}})";

// Compact serialisation of a built object; the fixed INTERNAL texts stand in when that
// fails (a number JSON cannot carry, such as one that overflowed when read, counts as a
// failure) or would not be UTF-8.
std::string serialiseEnvelope(const boost::json::object& object);

std::string errorEnvelope(std::string_view code, std::string_view message);
std::string failureEnvelope(const vorn::tesk::VornError& problem);
// `rawJson` may be any JSON document, top-level scalars included, nested no deeper than the
// envelope leaves room for (platform::kMaxJSONDepth - 2); anything else gives the
// "INTERNAL" error "Unknown outcome rawJson was not valid JSON".
std::string unknownOutcomeEnvelope(std::string_view code, std::string_view rawJson);

template <class Response>
std::string successEnvelope(const Response& response) {
  std::string text = R"({"success":)";
  // The encoder refuses text that is not UTF-8, so what it wrote needs no second check.
  vorn::tesk::TeskJSONCoding::makeEncoder().encode(response, text);
  text.push_back('}');
  return text;
}

// The envelope of any case of any of the ten result types.
template <class Response, class... OwnCases>
std::string encodeResult(const AdapterResult<Response, OwnCases...>& result) {
  return std::visit(
      [](const auto& value) -> std::string {
        using Case = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<Case, Response>) {
          return successEnvelope(value);
        } else if constexpr (std::is_same_v<Case, Unknown>) {
          return unknownOutcomeEnvelope(value.code, value.rawJson);
        } else if constexpr (std::is_same_v<Case, vorn::tesk::VornError>) {
          return failureEnvelope(value);
        } else if constexpr (std::is_same_v<Case, Pending>) {
          return std::string(kPendingEnvelope);
        } else if constexpr (std::is_same_v<Case, UserCanceled>) {
          return std::string(kUserCanceledEnvelope);
        } else if constexpr (std::is_same_v<Case, AlreadyStarted>) {
          return std::string(kAlreadyStartedEnvelope);
        } else {
          static_assert(std::is_same_v<Case, TransactionNotFound>);
          return std::string(kTransactionNotFoundEnvelope);
        }
      },
      result);
}

}  // namespace VornTeskPaymentsAddonApple
