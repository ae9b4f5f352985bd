// What the Server API's endpoint files share: reading ids, query values and JSON bodies as
// Apple's server reads them, and turning the store's failures into Apple's answer. Private to
// src/appstore/server; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <boost/json/object.hpp>

#include "appstore/server/server_api.h"

namespace appstore::server {

// Transaction ids are decimal digits, as Apple writes them.
std::optional<std::uint64_t> transactionNumber(std::string_view text);
// A decimal integer, with an optional minus sign; nothing for anything else.
std::optional<std::int64_t> integerText(std::string_view text);

// The values of `key`, in the order sent.
std::vector<std::string> allValues(const QueryParameters& query, const std::string& key);
// The one value of a parameter that is not a list: nothing when absent, `error` when repeated.
std::variant<std::monostate, std::string, ApiError> singleValue(const QueryParameters& query,
                                                              const std::string& key,
                                                              ApiError error);
// "true" or "false" in any letter case (Python's clients send "True").
std::optional<bool> booleanText(std::string_view text);

// The request body as a JSON object; nothing when it is empty, not JSON or not an object.
std::optional<boost::json::object> jsonObject(const std::string& body);
// An integer member, also written as a number with no fractional part (Swift writes its
// numbers as doubles); nothing when absent or anything else.
std::optional<std::int64_t> integerMember(const boost::json::object& object, std::string_view key);

// Whether `id` names the customer: one of their transactions or their app transaction.
bool isCustomerTransaction(LocalStore& store, std::uint64_t id);

// Runs an endpoint: a ledger that cannot be read gets Apple's answer for its own trouble.
template <class Answer>
ApiAnswer guarded(Answer&& answer) {
  try {
    return answer();
  } catch (const std::exception&) {
    return ApiAnswer::error(ApiError::generalInternal);
  }
}

}  // namespace appstore::server
