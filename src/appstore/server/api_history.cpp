// The history endpoints: Get Transaction History (v1 and v2) and Get Refund History. Their
// `revision` tokens say where the previous page ended: a transaction history token is the
// revision (the order of the latest change) of the last transaction handed out, so the next
// page continues after it in either sort, and a transaction changed in between is handed out
// again in ascending order; a refund history token is "<revocation date>_<transaction id>" of
// the last refund handed out.
#include <cstdint>
#include <cstring>

#include <boost/json/serialize.hpp>

#include "appstore/server/api_support.h"

namespace appstore::server {
namespace json = boost::json;
namespace {

constexpr std::size_t kPageSize = 20;

std::optional<const char*> typeName(const std::string& productType) {
  if (productType == "AUTO_RENEWABLE") return "Auto-Renewable Subscription";
  if (productType == "NON_RENEWABLE") return "Non-Renewing Subscription";
  if (productType == "CONSUMABLE") return "Consumable";
  if (productType == "NON_CONSUMABLE") return "Non-Consumable";
  return std::nullopt;
}

// A date parameter: milliseconds since 1970, within the years the store keeps.
std::optional<platform::Date> dateText(const std::string& text) {
  const auto value = integerText(text);
  if (!value || *value < 0 || *value > 253402300799999) return std::nullopt;
  return platform::dateFromMillisecondsSince1970(*value);
}

// The history query a request asks for, or the error its parameters earn. Unknown parameters
// are ignored, as Apple's server ignores them.
std::variant<HistoryQuery, ApiError> historyQuery(HistoryVersion version,
                                                  const QueryParameters& query) {
  HistoryQuery wanted;
  wanted.limit = kPageSize;
  wanted.withFinishedConsumables = version == HistoryVersion::v2;
  // A single-valued parameter: its text, nothing, or its error when repeated.
  std::optional<ApiError> failed;
  auto single = [&](const char* key, ApiError error) -> std::optional<std::string> {
    auto value = singleValue(query, key, error);
    if (const auto* refused = std::get_if<ApiError>(&value)) failed = *refused;
    if (auto* text = std::get_if<std::string>(&value)) return std::move(*text);
    return std::nullopt;
  };
  if (const auto revision = single("revision", ApiError::invalidRequestRevision)) {
    const auto position = transactionNumber(*revision);
    if (!position) return ApiError::invalidRequestRevision;
    wanted.after = *position;
  }
  if (failed) return *failed;
  if (const auto start = single("startDate", ApiError::invalidStartDate)) {
    wanted.start = dateText(*start);
    if (!wanted.start) return ApiError::invalidStartDate;
  }
  if (failed) return *failed;
  if (const auto end = single("endDate", ApiError::invalidEndDate)) {
    wanted.end = dateText(*end);
    if (!wanted.end) return ApiError::invalidEndDate;
  }
  if (failed) return *failed;
  if (wanted.start && wanted.end && *wanted.start >= *wanted.end) {
    return ApiError::startDateAfterEndDate;
  }
  wanted.productIDs = allValues(query, "productId");
  for (const auto& id : wanted.productIDs) {
    if (id.empty()) return ApiError::invalidProductId;
  }
  for (const auto& type : allValues(query, "productType")) {
    const auto name = typeName(type);
    if (!name) return ApiError::invalidProductType;
    wanted.productTypes.emplace_back(*name);
  }
  wanted.groupIDs = allValues(query, "subscriptionGroupIdentifier");
  for (const auto& id : wanted.groupIDs) {
    if (id.empty()) return ApiError::invalidSubscriptionGroupIdentifier;
  }
  if (const auto ownership = single("inAppOwnershipType", ApiError::invalidInAppOwnershipType)) {
    if (*ownership != "FAMILY_SHARED" && *ownership != "PURCHASED") {
      return ApiError::invalidInAppOwnershipType;
    }
    wanted.familyShared = *ownership == "FAMILY_SHARED";
  }
  if (failed) return *failed;
  if (const auto sort = single("sort", ApiError::invalidSort)) {
    if (*sort != "ASCENDING" && *sort != "DESCENDING") return ApiError::invalidSort;
    wanted.newestFirst = *sort == "DESCENDING";
  }
  if (failed) return *failed;
  if (const auto revoked = single("revoked", ApiError::invalidRevoked)) {
    wanted.revoked = booleanText(*revoked);
    if (!wanted.revoked) return ApiError::invalidRevoked;
  }
  if (failed) return *failed;
  if (const auto exclude = single("excludeRevoked", ApiError::invalidExcludeRevoked)) {
    const auto excluded = booleanText(*exclude);
    if (!excluded) return ApiError::invalidExcludeRevoked;
    // The older spelling of revoked=false; with revoked=true nothing is left.
    if (*excluded) {
      if (wanted.revoked == true) wanted.limit = 0;
      wanted.revoked = false;
    }
  }
  if (failed) return *failed;
  return wanted;
}

std::optional<RefundPosition> refundPosition(const std::string& token) {
  const auto split = token.find('_');
  if (split == std::string::npos) return std::nullopt;
  const auto date = transactionNumber(std::string_view(token).substr(0, split));
  const auto id = transactionNumber(std::string_view(token).substr(split + 1));
  if (!date || !id || *date > 253402300799999) return std::nullopt;
  return RefundPosition{platform::dateFromMillisecondsSince1970(static_cast<std::int64_t>(*date)), *id};
}

std::string refundToken(const std::optional<RefundPosition>& position) {
  if (!position) return "0_0";
  return std::to_string(platform::millisecondsSince1970(position->revoked)) + "_" +
         std::to_string(position->id);
}

// Whether `text` can go between JSON quotes as it is: no quote, backslash or control
// character. Always so for a compact JWS (base64url segments joined by dots), which is some
// 4 KB, so eight bytes are checked at a time: a byte of a word is zero exactly when
// (word - 0x01…01) & ~word & 0x80…80 is not, and below 0x20 when (word - 0x20…20) & ~word &
// 0x80…80 is not.
bool needsNoEscaping(std::string_view text) {
  constexpr std::uint64_t kOnes = 0x0101010101010101, kHighs = 0x8080808080808080;
  const auto anyZero = [](std::uint64_t word) { return (word - kOnes) & ~word & kHighs; };
  std::uint64_t special = 0;
  std::size_t at = 0;
  for (; at + 8 <= text.size(); at += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + at, 8);
    special |= anyZero(word ^ (kOnes * '"')) | anyZero(word ^ (kOnes * '\\')) |
               ((word - kOnes * 0x20) & ~word & kHighs);
  }
  for (; at < text.size(); ++at) {
    const auto c = static_cast<unsigned char>(text[at]);
    special |= c == '"' || c == '\\' || c < 0x20;
  }
  return special == 0;
}

// The page's answer: `members`, then "signedTransactions", written into one string sized for
// it. A page holds some 80 KB of signed forms, which a JSON array of them would copy once more
// and its serializer again, into a string grown step by step.
std::string pageAnswer(const json::object& members,
                       const std::vector<SignedTransaction>& transactions) {
  auto head = json::serialize(members);
  head.pop_back();  // its closing brace
  std::size_t size = head.size() + 32;
  for (const auto& transaction : transactions) size += transaction.jws.size() + 3;
  std::string answer;
  answer.reserve(size);
  answer += head;
  answer += members.empty() ? "\"signedTransactions\":[" : ",\"signedTransactions\":[";
  for (std::size_t i = 0; i < transactions.size(); ++i) {
    if (i > 0) answer += ',';
    const auto& jws = transactions[i].jws;
    if (needsNoEscaping(jws)) {
      answer += '"';
      answer += jws;
      answer += '"';
    } else {
      answer += json::serialize(json::value(jws));
    }
  }
  answer += "]}";
  return answer;
}

}  // namespace

ApiAnswer transactionHistory(LocalStore& store, HistoryVersion version,
                             const std::string& transactionID, const QueryParameters& query) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    auto wanted = historyQuery(version, query);
    if (const auto* refused = std::get_if<ApiError>(&wanted)) return ApiAnswer::error(*refused);
    if (!isCustomerTransaction(store, *id)) return ApiAnswer::error(ApiError::transactionIdNotFound);
    const auto& historyWanted = std::get<HistoryQuery>(wanted);
    HistoryPage page;
    page.position = historyWanted.after.value_or(0);
    if (historyWanted.limit > 0) page = store.transactionHistory(historyWanted);
    return ApiAnswer{200, pageAnswer({{"revision", std::to_string(page.position)},
                                      {"bundleId", store.bundleID()},
                                      {"environment", store.environment()},
                                      {"hasMore", page.hasMore}},
                                     page.transactions)};
  });
}

ApiAnswer refundHistory(LocalStore& store, const std::string& transactionID,
                        const QueryParameters& query) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    std::optional<RefundPosition> after;
    auto revision = singleValue(query, "revision", ApiError::invalidRequestRevision);
    if (std::holds_alternative<ApiError>(revision)) {
      return ApiAnswer::error(ApiError::invalidRequestRevision);
    }
    if (const auto* token = std::get_if<std::string>(&revision)) {
      after = refundPosition(*token);
      if (!after) return ApiAnswer::error(ApiError::invalidRequestRevision);
    }
    if (!isCustomerTransaction(store, *id)) return ApiAnswer::error(ApiError::transactionIdNotFound);
    const auto page = store.refundHistory(after, kPageSize);
    return ApiAnswer{
        200, pageAnswer({{"revision", refundToken(page.position)}, {"hasMore", page.hasMore}},
                        page.transactions)};
  });
}

}  // namespace appstore::server
