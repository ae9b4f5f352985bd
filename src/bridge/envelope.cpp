#include "bridge/envelope.h"

#include "platform/json.h"
#include "platform/utf8.h"

#include <boost/json/serialize.hpp>

#include <cmath>

namespace VornTeskPaymentsAddonApple {

namespace {

// A number that overflowed when it was read (1e999) is held as infinity, which Boost.JSON
// writes as the bare word Infinity: not JSON.
bool holdsNonFiniteNumber(const boost::json::value& value) {
  if (value.is_double()) return !std::isfinite(value.get_double());
  if (const auto* array = value.if_array()) {
    for (const auto& element : *array) {
      if (holdsNonFiniteNumber(element)) return true;
    }
  } else if (const auto* object = value.if_object()) {
    for (const auto& member : *object) {
      if (holdsNonFiniteNumber(member.value())) return true;
    }
  }
  return false;
}

}  // namespace

std::string serialiseEnvelope(const boost::json::object& object) {
  // What the serialiser cannot write as JSON fails like any other serialisation error.
  for (const auto& member : object) {
    if (holdsNonFiniteNumber(member.value())) return std::string(kUnserialisableEnvelope);
  }
  std::string text;
  try {
    text = boost::json::serialize(object);
  } catch (...) {
    return std::string(kUnserialisableEnvelope);
  }
  // Boost.JSON copies string bytes as they are, so text built from invalid UTF-8 (an error
  // message passed through from elsewhere, say) must not go out as it is.
  if (!platform::isValidUTF8(text)) return std::string(kNonUTF8Envelope);
  return text;
}

std::string errorEnvelope(std::string_view code, std::string_view message) {
  boost::json::object error;
  error["code"] = code;
  error["message"] = message;
  return serialiseEnvelope(boost::json::object{{"error", std::move(error)}});
}

std::string failureEnvelope(const vorn::tesk::VornError& problem) {
  return serialiseEnvelope(boost::json::object{{"error", problem.toJSONObject()}});
}

std::string unknownOutcomeEnvelope(std::string_view code, std::string_view rawJson) {
  // The data sits two levels down (the envelope's object, then the outcome's): deeper data
  // would make an answer too deeply nested for any reader with the process's depth limit.
  constexpr std::size_t kDataDepth = platform::kMaxJSONDepth - 2;
  auto data = rawJson.empty() ? std::nullopt : platform::parseJSON(rawJson, nullptr, kDataDepth);
  if (!data) return errorEnvelope("INTERNAL", "Unknown outcome rawJson was not valid JSON");
  boost::json::object outcome;
  outcome["code"] = code;
  outcome["data"] = std::move(*data);
  return serialiseEnvelope(boost::json::object{{"outcome", std::move(outcome)}});
}

}  // namespace VornTeskPaymentsAddonApple
