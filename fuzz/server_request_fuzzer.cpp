// Requests to the App Store Server API of any content: the Authorization header, the path's
// transaction id and the query's status values. A bearer token is accepted only when it was
// signed with the server's key, and every answer is a status with Apple's error shape or a
// JSON body, never a crash.
#include "fuzz_check.h"

#include <boost/json/parse.hpp>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "appstore/local_store.h"
#include "appstore/server/bearer_token.h"
#include "appstore/server/server_api.h"

namespace {

using namespace appstore;

struct World {
  std::shared_ptr<LocalStore> store = LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  server::InAppPurchaseKey key = server::InAppPurchaseKey::generate("KEY1", "ISSUER");
  World() {
    store->buyProduct("com.vorntesk.sample.removeads");
    store->buyProduct("com.vorntesk.sample.basic.monthly");
  }
};

void checkAnswer(const server::ApiAnswer& answer) {
  FUZZ_REQUIRE(answer.status == 200 || answer.status == 400 || answer.status == 404,
               "unexpected status " + std::to_string(answer.status));
  if (answer.body.empty()) return;
  boost::json::error_code ec;
  const auto body = boost::json::parse(answer.body, ec);
  FUZZ_REQUIRE(!ec && body.is_object(), "the body is not a JSON object: " + answer.body);
  if (answer.status != 200) {
    const auto* code = body.as_object().if_contains("errorCode");
    FUZZ_REQUIRE(code && code->is_int64() && code->as_int64() / 10000 == answer.status,
                 "the error code does not give the status: " + answer.body);
  }
}

}  // namespace

// Input: "token\nid\nstatus\nstatus..." (see fuzz_check.h's splitFirstLine).
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  auto [authorization, rest] = fuzzcheck::splitFirstLine(data, size);
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  const auto check = server::checkBearerToken(authorization, world.key, world.store->bundleID(), now);
  // Nothing the fuzzer writes is signed with a key it never saw.
  FUZZ_REQUIRE(check != server::TokenCheck::accepted, "a token not signed with the key got in");

  std::vector<std::string> lines;
  for (std::size_t start = 0; start <= rest.size();) {
    const auto end = rest.find('\n', start);
    lines.push_back(rest.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  const std::string id = lines.empty() ? "" : lines[0];
  const std::vector<std::string> statuses(lines.size() > 1 ? lines.begin() + 1 : lines.end(), lines.end());
  checkAnswer(server::transactionInfo(*world.store, id));
  checkAnswer(server::allSubscriptionStatuses(*world.store, id, statuses));
  return 0;
}
