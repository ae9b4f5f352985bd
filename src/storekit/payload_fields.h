// Reading the fields of a signed payload as StoreKit does: a field that is absent or null is
// missing (VerificationError.missingRequiredProperties when it is required), a field of the
// wrong kind is an invalid encoding (VerificationError.invalidEncoding). Pure; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <boost/json/object.hpp>

#include "platform/date.h"
#include "platform/uuid.h"

namespace storekit::payload {

[[noreturn]] void missing();
[[noreturn]] void badEncoding();

// The value at `key`; nothing when absent or null.
const boost::json::value* find(const boost::json::object& object, std::string_view key);
std::optional<std::string> optionalString(const boost::json::object& object, std::string_view key);
std::string requiredString(const boost::json::object& object, std::string_view key);
std::optional<std::int64_t> optionalInteger(const boost::json::object& object, std::string_view key);
std::optional<bool> optionalBool(const boost::json::object& object, std::string_view key);
// Identifiers are strings of digits in the payload; plain unsigned numbers are read too.
std::uint64_t requiredIdentifier(const boost::json::object& object, std::string_view key);
// Dates are milliseconds since 1970.
std::optional<platform::Date> optionalDate(const boost::json::object& object, std::string_view key);
platform::Date requiredDate(const boost::json::object& object, std::string_view key);
std::optional<platform::UUID> optionalUUID(const boost::json::object& object, std::string_view key);

}  // namespace storekit::payload
