#include "appstore/server/bearer_token.h"

#include <optional>
#include <string>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "platform/base64.h"
#include "platform/openssl.h"

namespace appstore::server {
namespace json = boost::json;
namespace {

constexpr std::int64_t kLongestLifetimeSeconds = 3600;
// Clocks differ a little between a developer's server and the App Store.
constexpr std::int64_t kClockSkewSeconds = 60;

std::optional<json::object> segmentObject(std::string_view segment) {
  const auto text = platform::base64URLDecode(segment);
  if (!text) return std::nullopt;
  json::error_code ec;
  auto value = json::parse(*text, ec);
  if (ec || !value.is_object()) return std::nullopt;
  return std::move(value.get_object());
}

std::optional<std::int64_t> seconds(const json::object& payload, std::string_view key) {
  const auto* value = payload.if_contains(key);
  if (!value) return std::nullopt;
  if (value->is_int64()) return value->get_int64();
  if (value->is_uint64() && value->get_uint64() <= static_cast<std::uint64_t>(INT64_MAX)) {
    return static_cast<std::int64_t>(value->get_uint64());
  }
  if (value->is_double()) return static_cast<std::int64_t>(value->get_double());
  return std::nullopt;
}

bool isString(const json::object& object, std::string_view key, std::string_view expected) {
  const auto* value = object.if_contains(key);
  return value && value->is_string() && value->get_string() == expected;
}

// "aud" is a string, or a list holding it (JWT allows both).
bool hasAudience(const json::object& payload, std::string_view audience) {
  const auto* value = payload.if_contains("aud");
  if (value && value->is_array()) {
    for (const auto& entry : value->get_array()) {
      if (entry.is_string() && entry.get_string() == audience) return true;
    }
    return false;
  }
  return isString(payload, "aud", audience);
}

}  // namespace

TokenCheck checkBearerToken(std::string_view authorization, const InAppPurchaseKey& key,
                            std::string_view bundleID, std::int64_t nowSeconds) {
  constexpr std::string_view kScheme = "Bearer ";
  if (authorization.substr(0, kScheme.size()) != kScheme) return TokenCheck::unauthorized;
  const auto token = authorization.substr(kScheme.size());
  const auto first = token.find('.');
  const auto last = token.rfind('.');
  if (first == std::string_view::npos || first == last ||
      token.find('.', first + 1) != last) {
    return TokenCheck::unauthorized;
  }
  const auto header = segmentObject(token.substr(0, first));
  const auto payload = segmentObject(token.substr(first + 1, last - first - 1));
  const auto signature = platform::base64URLDecode(token.substr(last + 1));
  if (!header || !payload || !signature) return TokenCheck::unauthorized;
  if (!isString(*header, "alg", "ES256") || !isString(*header, "kid", key.keyID)) {
    return TokenCheck::unauthorized;
  }
  if (const auto* type = header->if_contains("typ"); type && !isString(*header, "typ", "JWT")) {
    return TokenCheck::unauthorized;
  }
  if (!platform::verifyES256(key.key.get(), token.substr(0, last), *signature)) {
    return TokenCheck::unauthorized;
  }
  if (!isString(*payload, "iss", key.issuerID) || !hasAudience(*payload, "appstoreconnect-v1")) {
    return TokenCheck::unauthorized;
  }
  // Valid until "exp", and for an hour at most. Apple's Python and Java libraries send no
  // "iat": then "exp" itself may be at most an hour away.
  const auto expires = seconds(*payload, "exp");
  if (!expires || *expires <= nowSeconds) return TokenCheck::unauthorized;
  if (payload->contains("iat")) {
    const auto issued = seconds(*payload, "iat");
    if (!issued || *issued > nowSeconds + kClockSkewSeconds ||
        *expires - *issued > kLongestLifetimeSeconds) {
      return TokenCheck::unauthorized;
    }
  } else if (*expires - nowSeconds > kLongestLifetimeSeconds + kClockSkewSeconds) {
    return TokenCheck::unauthorized;
  }
  if (!isString(*payload, "bid", bundleID)) {
    return payload->contains("bid") ? TokenCheck::unknownApp : TokenCheck::unauthorized;
  }
  return TokenCheck::accepted;
}

std::string makeBearerToken(const InAppPurchaseKey& key, std::string_view bundleID,
                            std::int64_t nowSeconds) {
  namespace json = boost::json;
  const json::object header{{"alg", "ES256"}, {"kid", key.keyID}, {"typ", "JWT"}};
  const json::object payload{{"iss", key.issuerID}, {"iat", nowSeconds}, {"exp", nowSeconds + 300},
                             {"aud", "appstoreconnect-v1"}, {"bid", bundleID}};
  const auto input = platform::base64URLEncode(json::serialize(header)) + "." +
                     platform::base64URLEncode(json::serialize(payload));
  return "Bearer " + input + "." + platform::base64URLEncode(platform::signES256(key.key.get(), input));
}

}  // namespace appstore::server
