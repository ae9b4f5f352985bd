// Requests to the App Store Server API of any content, answered through answerRequest as the
// HTTP server answers them once the bearer token is accepted: any method, a path made from an
// endpoint's pattern with fuzzed ids or any path at all, a query with repeated keys and any
// values, any body. A bearer token is accepted only when it was signed with the server's key;
// every answer has a status the API uses, Apple's error shape or a JSON object, and a
// request an endpoint takes is never answered as an unknown path.
//
// Input, a field a line:
//   Authorization header
//   then up to kMaxRequests requests, each:
//     method          empty: the method of the pattern the path names
//     path            "#N a b": pattern N with its ids in order, or the path as written
//     query           key=value&key=value (taken as written: the HTTP server decodes it)
//     body            every line up to one that is exactly "--", or the end of the input
// In ids and query values, "$K" stands for the K-th value the store knows (transaction ids,
// the app transaction, a test notification token, a mass extension, a product); in bodies,
// "@now" for the store clock and "@past" for a day before, in milliseconds.
#include "fuzz_check.h"

#include <boost/json/parse.hpp>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appstore/local_store.h"
#include "appstore/order_ids.h"
#include "appstore/server/api_routes.h"
#include "appstore/server/bearer_token.h"
#include "appstore/store_configuration.h"
#include "platform/date.h"

namespace {

using namespace appstore;

constexpr std::size_t kMaxRequests = 4;
constexpr const char* kBasic = "com.vorntesk.sample.basic.monthly";

struct Pattern {
  const char* method;
  const char* path;  // each "*" takes the next id
};

constexpr std::array<Pattern, 17> kPatterns{{
    {"GET", "/inApps/v1/transactions/*"},
    {"GET", "/inApps/v1/subscriptions/*"},
    {"POST", "/inApps/v1/notifications/test"},
    {"GET", "/inApps/v1/notifications/test/*"},
    {"POST", "/inApps/v1/notifications/history"},
    {"POST", "/inApps/v1/transactions/*/finish"},
    {"GET", "/inApps/v1/transactions/appTransactions/*"},
    {"PUT", "/inApps/v1/transactions/*/appAccountToken"},
    {"GET", "/inApps/v1/history/*"},
    {"GET", "/inApps/v2/history/*"},
    {"PUT", "/inApps/v1/transactions/consumption/*"},
    {"PUT", "/inApps/v2/transactions/consumption/*"},
    {"PUT", "/inApps/v1/subscriptions/extend/*"},
    {"POST", "/inApps/v1/subscriptions/extend/mass"},
    {"GET", "/inApps/v1/subscriptions/extend/mass/*/*"},
    {"GET", "/inApps/v2/refund/lookup/*"},
    {"GET", "/inApps/v1/lookup/*"},
}};

// What the store is built from, once: the catalogue and the key the bearer tokens are
// checked against.
struct Fixed {
  StoreConfiguration configuration =
      StoreConfiguration::load(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  server::InAppPurchaseKey key = server::InAppPurchaseKey::generate("KEY1", "ISSUER");
};

// The store every input starts from (made again after an input that changed it, so that an
// input answers the same whatever ran before it): purchases of every kind (a consumable, a refunded
// non-consumable, a subscription that renewed, a non-renewing one, one shared by the family), their
// notifications, a test notification that was sent, and a mass extension.
struct World {
  std::shared_ptr<LocalStore> store;
  std::vector<std::string> known;

  explicit World(const Fixed& fixed) : store(LocalStore::create(fixed.configuration)) {
    store->setNotificationsURL("http://127.0.0.1:9/");
    const auto coins = store->buyProduct("com.vorntesk.sample.coins100").id;
    const auto removeAds = store->buyProduct("com.vorntesk.sample.removeads").id;
    store->refundTransaction(removeAds, 1);
    const auto basic = store->buyProduct(kBasic).id;
    store->forceRenewalOfSubscription(kBasic);
    const auto renewal = store->subscriptionStatuses().at(0).transaction.id;
    const auto pass = store->buyProduct("com.vorntesk.sample.seasonpass").id;
    const auto shared = store->shareWithFamily("com.vorntesk.sample.offlinemaps").id;
    const auto test = store->requestTestNotification().value_or("");
    std::vector<DeliveryResult> sent;
    for (const auto& due : store->dueNotifications(100))
      sent.push_back({due.sequence, 0, "SUCCESS"});
    store->recordSendAttempts(sent);
    store->extendRenewalDatesForAllSubscribers({kBasic, 3, 1, "m1", std::nullopt});
    for (const auto id : {coins, removeAds, basic, renewal, pass, shared})
      known.push_back(std::to_string(id));
    known.insert(known.end(), {store->appTransactionID(), test, "m1", kBasic,
                               orderIDForTransaction(coins), orderIDForTransaction(shared)});
  }
};

std::string known(const World& world, std::string_view text) {
  if (text.size() < 2 || text.front() != '$') return std::string(text);
  std::size_t index = 0;
  for (const char c : text.substr(1)) {
    if (c < '0' || c > '9') return std::string(text);
    index = (index * 10 + static_cast<std::size_t>(c - '0')) % world.known.size();
  }
  return world.known[index];
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t start = 0;;) {
    const auto end = text.find(separator, start);
    parts.push_back(
        text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

// A body with the store clock put in: dates a request is taken with depend on when it runs.
std::string withDates(const World& world, std::string body) {
  const auto now = platform::millisecondsSince1970(world.store->now());
  for (const auto& [marker, value] :
       {std::pair<std::string, std::int64_t>{"@now", now}, {"@past", now - 86400000}}) {
    const auto text = std::to_string(value);
    for (auto at = body.find(marker); at != std::string::npos;
         at = body.find(marker, at + text.size())) {
      body.replace(at, marker.size(), text);
    }
  }
  return body;
}

struct Built {
  server::ApiRequest request;
  // The pattern's own method with an id in each place: an endpoint must answer.
  bool endpointTakesIt = false;
};

Built build(const World& world, std::string_view method, std::string_view path,
            std::string_view query, std::string body) {
  Built built;
  built.request.method = std::string(method);
  built.request.body = withDates(world, std::move(body));
  if (!path.empty() && path.front() == '#') {
    const auto words = split(path.substr(1), ' ');
    std::size_t number = 0;
    for (const char c : words[0]) {
      if (c >= '0' && c <= '9')
        number = (number * 10 + static_cast<std::size_t>(c - '0')) % kPatterns.size();
    }
    const auto& pattern = kPatterns[number];
    if (method.empty()) built.request.method = pattern.method;
    bool idsFit = true;
    std::size_t next = 1;
    for (const char* c = pattern.path; *c; ++c) {
      if (*c != '*') {
        built.request.path += *c;
        continue;
      }
      const auto id = next < words.size() ? known(world, words[next++]) : std::string("1");
      idsFit = idsFit && !id.empty() && id.find('/') == std::string::npos;
      built.request.path += id;
    }
    built.endpointTakesIt = idsFit && built.request.method == pattern.method;
  } else {
    built.request.path = std::string(path);
  }
  if (!query.empty()) {
    for (const auto pair : split(query, '&')) {
      const auto equals = pair.find('=');
      built.request.query.emplace(
          std::string(pair.substr(0, equals)),
          equals == std::string_view::npos ? "" : known(world, pair.substr(equals + 1)));
    }
  }
  return built;
}

void checkAnswer(const Built& built, const server::ApiAnswer& answer) {
  const auto& request = built.request;
  const std::string where = request.method + " " + request.path + " -> " +
                            std::to_string(answer.status) + " " + answer.body;
  FUZZ_REQUIRE(answer.status == 200 || answer.status == 202 || answer.status == 400 ||
                   answer.status == 403 || answer.status == 404 || answer.status == 405,
               "unexpected status: " + where);
  FUZZ_REQUIRE(answer.allow.empty() == (answer.status != 405),
               "Allow without 405 or 405 without Allow: " + where);
  if (built.endpointTakesIt) {
    FUZZ_REQUIRE(answer.status != 405 && !(answer.status == 404 && answer.body.empty()),
                 "an endpoint's own request was not routed: " + where);
  }
  if (answer.body.empty()) {
    // No body: routing's refusals, and the endpoints Apple answers without one.
    const bool noBodyEndpoint =
        (answer.status == 200 && (request.method == "POST" || request.method == "PUT")) ||
        (answer.status == 202 && request.method == "PUT");
    FUZZ_REQUIRE(answer.status == 404 || answer.status == 405 || noBodyEndpoint,
                 "no body: " + where);
    return;
  }
  FUZZ_REQUIRE(answer.status != 202 && answer.status != 405, "a body where none belongs: " + where);
  boost::json::error_code ec;
  const auto body = boost::json::parse(answer.body, ec);
  FUZZ_REQUIRE(!ec && body.is_object(), "the body is not a JSON object: " + where);
  if (answer.status == 200) return;
  const auto& error = body.as_object();
  const auto* code = error.if_contains("errorCode");
  const auto* message = error.if_contains("errorMessage");
  FUZZ_REQUIRE(
      error.size() == 2 && code && code->is_int64() && code->as_int64() / 10000 == answer.status,
      "the error code does not give the status: " + where);
  FUZZ_REQUIRE(message && message->is_string() && !message->as_string().empty(),
               "no error message: " + where);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fixed fixed;
  // Making the store takes far longer than answering: it is kept while requests only read.
  static std::unique_ptr<World> kept;
  if (!kept) kept = std::make_unique<World>(fixed);
  const World& world = *kept;
  auto [authorization, rest] = fuzzcheck::splitFirstLine(data, size);
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  const auto check =
      server::checkBearerToken(authorization, fixed.key, world.store->bundleID(), now);
  // Nothing the fuzzer writes is signed with a key it never saw.
  FUZZ_REQUIRE(check != server::TokenCheck::accepted, "a token not signed with the key got in");

  const auto lines = split(rest, '\n');
  std::size_t line = 0;
  bool changed = false;
  for (std::size_t made = 0; made < kMaxRequests && line + 2 < lines.size(); ++made) {
    const auto method = lines[line], path = lines[line + 1], query = lines[line + 2];
    line += 3;
    std::string body;
    for (bool first = true; line < lines.size() && lines[line] != "--"; ++line, first = false) {
      if (!first) body += '\n';
      body += lines[line];
    }
    ++line;  // past the "--"
    const auto built = build(world, method, path, query, std::move(body));
    const auto answer = server::answerRequest(*world.store, built.request);
    checkAnswer(built, answer);
    // Only a POST or PUT an endpoint carried out changes the store (the history's POST reads).
    changed = changed || (built.request.method != "GET" && built.request.method != "HEAD" &&
                          (answer.status == 200 || answer.status == 202) &&
                          built.request.path != "/inApps/v1/notifications/history");
  }
  if (changed) kept.reset();
  return 0;
}
