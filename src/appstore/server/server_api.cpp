#include "appstore/server/server_api.h"

#include <charconv>
#include <optional>

#include <boost/json/serialize.hpp>

namespace appstore::server {
namespace json = boost::json;
namespace {

const char* messageOf(ApiError code) {
  switch (code) {
    case ApiError::invalidTransactionId: return "Invalid transaction id.";
    case ApiError::appNotFound: return "App not found.";
    case ApiError::transactionIdNotFound: return "Transaction id not found.";
    case ApiError::generalInternal: return "An unknown error occurred.";
  }
  return "An unknown error occurred.";
}

// Transaction ids are decimal digits, as Apple writes them.
std::optional<std::uint64_t> transactionNumber(const std::string& text) {
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

template <class Answer>
ApiAnswer guarded(Answer&& answer) {
  try {
    return answer();
  } catch (const std::exception&) {
    // A ledger that cannot be read: Apple's answer for its own trouble.
    return ApiAnswer::error(ApiError::generalInternal);
  }
}

}  // namespace

ApiAnswer ApiAnswer::error(ApiError code) {
  const auto number = static_cast<long>(code);
  return {static_cast<int>(number / 10000),
          json::serialize(json::object{{"errorCode", number}, {"errorMessage", messageOf(code)}})};
}

ApiAnswer transactionInfo(LocalStore& store, const std::string& transactionID) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    const auto jws = store.signedForm(*id);
    if (!jws || jws->empty()) return ApiAnswer::error(ApiError::transactionIdNotFound);
    return ApiAnswer{200, json::serialize(json::object{{"signedTransactionInfo", *jws}})};
  });
}

}  // namespace appstore::server
