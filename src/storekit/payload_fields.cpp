#include "storekit/payload_fields.h"

#include <charconv>

#include "storekit/errors.h"

namespace storekit::payload {
namespace json = boost::json;

[[noreturn]] void missing() {
  throw VerificationError(VerificationError::Code::missingRequiredProperties);
}
[[noreturn]] void badEncoding() { throw VerificationError(VerificationError::Code::invalidEncoding); }

const json::value* find(const json::object& object, std::string_view key) {
  const auto it = object.find(key);
  if (it == object.end() || it->value().is_null()) return nullptr;
  return &it->value();
}

std::optional<std::string> optionalString(const json::object& object, std::string_view key) {
  const auto* value = find(object, key);
  if (!value) return std::nullopt;
  if (!value->is_string()) badEncoding();
  return std::string(value->get_string());
}

std::string requiredString(const json::object& object, std::string_view key) {
  auto value = optionalString(object, key);
  if (!value) missing();
  return std::move(*value);
}

std::optional<bool> optionalBool(const json::object& object, std::string_view key) {
  const auto* value = find(object, key);
  if (!value) return std::nullopt;
  if (!value->is_bool()) badEncoding();
  return value->get_bool();
}

std::optional<std::int64_t> optionalInteger(const json::object& object, std::string_view key) {
  const auto* value = find(object, key);
  if (!value) return std::nullopt;
  if (value->is_int64()) return value->get_int64();
  if (value->is_uint64() && value->get_uint64() <= static_cast<std::uint64_t>(INT64_MAX)) {
    return static_cast<std::int64_t>(value->get_uint64());
  }
  badEncoding();
}

namespace {

std::uint64_t parseIdentifier(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) badEncoding();
  return value;
}

}  // namespace

std::uint64_t requiredIdentifier(const json::object& object, std::string_view key) {
  const auto* value = find(object, key);
  if (!value) missing();
  if (value->is_string()) return parseIdentifier(value->get_string());
  if (value->is_uint64()) return value->get_uint64();
  if (value->is_int64() && value->get_int64() >= 0) {
    return static_cast<std::uint64_t>(value->get_int64());
  }
  badEncoding();
}

std::optional<platform::Date> optionalDate(const json::object& object, std::string_view key) {
  const auto value = optionalInteger(object, key);
  if (!value) return std::nullopt;
  return platform::dateFromMillisecondsSince1970(*value);
}

platform::Date requiredDate(const json::object& object, std::string_view key) {
  const auto value = optionalDate(object, key);
  if (!value) missing();
  return *value;
}

std::optional<platform::UUID> optionalUUID(const json::object& object, std::string_view key) {
  const auto text = optionalString(object, key);
  if (!text) return std::nullopt;
  auto uuid = platform::UUID::fromString(*text);
  if (!uuid) badEncoding();
  return uuid;
}

}  // namespace storekit::payload
